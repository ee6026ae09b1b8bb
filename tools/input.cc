#include "tools/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "inspect/escape.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kInputPiece = 256 << 10;

[[noreturn]] void FailToRead(const std::string& name) {
  throw InputError(name + " can't be read: " + std::strerror(errno));
}

void RequireStandardInput() {
  if (StandardInputIsClosed()) throw InputError("standard input is closed");
  if (StandardInputIsTerminal()) PrintAccount("kestrun: reading standard input; Ctrl-D ends it");
}

}  // namespace

std::string ReadStandardInput(uint64_t most) {
  RequireStandardInput();
  std::string bytes;
  for (;;) {
    const size_t before = bytes.size();
    bytes.resize(before + kInputPiece);
    const ssize_t count = read(STDIN_FILENO, bytes.data() + before, kInputPiece);
    bytes.resize(before + (count > 0 ? static_cast<size_t>(count) : 0));
    if (count < 0 && errno != EINTR) FailToRead("standard input");
    if (count == 0) return bytes;
    if (bytes.size() > most) {
      throw InputError("standard input has more than " + std::to_string(most) +
                       " bytes, which is all that an entry can hold");
    }
  }
}

InputFile::InputFile(const std::string& path) : name_(Inspect::Printable(path)) {
  if (path == kStandardInput) {
    RequireStandardInput();
    name_ = "standard input";
    descriptor_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  } else {
    descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  }
  struct stat status = {};
  if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) FailToRead(name_);
  if (S_ISDIR(status.st_mode)) {
    close(descriptor_);
    throw InputError(name_ + " is a directory");
  }
  if (S_ISREG(status.st_mode)) size_ = static_cast<uint64_t>(status.st_size);
}

InputFile::~InputFile() {
  if (descriptor_ >= 0) close(descriptor_);
}

size_t InputFile::Read(char* buffer, size_t size) {
  for (;;) {
    const ssize_t count = read(descriptor_, buffer, size);
    if (count >= 0) {
      position_ += static_cast<uint64_t>(count);
      return static_cast<size_t>(count);
    }
    if (errno != EINTR) FailToRead(name_);
    if (WasInterrupted()) return 0;
  }
}

}  // namespace Kestrun::Tools
