#include "tools/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kOutputPiece = 256 << 10;

}  // namespace

// A device or a pipe can't be renamed over, and is written as it is.
OutputFile::OutputFile(const std::string& path) : path_(path) {
  struct stat status = {};
  const bool special = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
  partial_ = special ? path : path + ".partial-" + std::to_string(getpid());
  descriptor_ = open(partial_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | (special ? 0 : O_TRUNC), 0666);
  if (descriptor_ < 0) Fail();
  buffer_.reserve(kOutputPiece + (64 << 10));
}

OutputFile::~OutputFile() {
  if (descriptor_ < 0) return;
  close(descriptor_);
  if (partial_ != path_) unlink(partial_.c_str());
}

void OutputFile::Write(std::string_view bytes) {
  buffer_ += bytes;
  if (buffer_.size() >= kOutputPiece) Flush();
}

void OutputFile::Commit() {
  Flush();
  if (partial_ != path_) {
    if (fsync(descriptor_) != 0 || rename(partial_.c_str(), path_.c_str()) != 0) Fail();
  }
  const int descriptor = descriptor_;
  descriptor_ = -1;
  if (close(descriptor) != 0) Fail();
}

void OutputFile::Flush() {
  std::string_view left = buffer_;
  while (!left.empty()) {
    const ssize_t count = write(descriptor_, left.data(), left.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail();
    left.remove_prefix(static_cast<size_t>(count));
  }
  buffer_.clear();
}

void OutputFile::Fail() {
  throw SystemFailure(Inspect::Printable(path_) + " can't be written: " + std::strerror(errno),
                      "Nothing was left under that name; make room or choose another one.");
}

}  // namespace Kestrun::Tools
