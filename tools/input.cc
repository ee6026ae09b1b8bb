#include "tools/input.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kPiece = size_t{64} << 10;

[[noreturn]] void FailToRead(const std::string& name) {
  throw InputError(name + " can't be read: " + std::strerror(errno));
}

void CopyStandardInput(FILE* to) {
  std::array<char, kPiece> piece;
  size_t got = 0;
  while ((got = std::fread(piece.data(), 1, piece.size(), stdin)) > 0) {
    if (std::fwrite(piece.data(), 1, got, to) != got) FailToRead("standard input");
  }
  if (std::ferror(stdin) != 0 || std::fflush(to) != 0) FailToRead("standard input");
}

}  // namespace

std::string ReadStandardInput(uint64_t most) {
  std::string bytes;
  std::array<char, kPiece> piece;
  size_t got = 0;
  while ((got = std::fread(piece.data(), 1, piece.size(), stdin)) > 0) {
    bytes.append(piece.data(), got);
    if (bytes.size() > most) {
      throw InputError("standard input has more than " + std::to_string(most) +
                       " bytes, which is all that an entry can hold");
    }
  }
  if (std::ferror(stdin) != 0) FailToRead("standard input");
  return bytes;
}

InputFile::InputFile(const std::string& path) : name_(Inspect::Printable(path)) {
  if (path == kStandardInput) {
    name_ = "standard input";
    file_.reset(std::tmpfile());
    if (file_ == nullptr) FailToRead("standard input");
    CopyStandardInput(file_.get());
  } else {
    file_.reset(std::fopen(path.c_str(), "rbe"));
    if (file_ == nullptr) FailToRead(name_);
  }
  struct stat status = {};
  if (fstat(fileno(file_.get()), &status) != 0) FailToRead(name_);
  if (!S_ISREG(status.st_mode)) {
    throw InputError(name_ + " is not a regular file; give '-' to read standard input");
  }
  size_ = static_cast<uint64_t>(status.st_size);
  Seek(0);
}

void InputFile::Seek(uint64_t position) {
  if (fseeko(file_.get(), static_cast<off_t>(position), SEEK_SET) != 0) FailToRead(name_);
  position_ = position;
}

bool InputFile::ReadLine(std::string* line) {
  char* buffer = nullptr;
  size_t capacity = 0;
  errno = 0;
  const ssize_t length = getline(&buffer, &capacity, file_.get());
  if (length > 0) line->assign(buffer, static_cast<size_t>(length));
  std::free(buffer);
  if (length <= 0) {
    if (std::ferror(file_.get()) != 0 || errno == ENOMEM) FailToRead(name_);
    return false;
  }
  position_ += static_cast<uint64_t>(length);
  return true;
}

}  // namespace Kestrun::Tools
