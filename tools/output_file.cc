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

// Whether both are there and the same, by whatever names.
bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Gives the file owner and permissions of the one that it is to replace. Only the superuser can give it to
// somebody else; what the group or others may do is left out where they are not the same ones.
bool TakeOver(int descriptor, const struct stat& old) {
  const bool isTheirs = fchown(descriptor, old.st_uid, old.st_gid) == 0;
  struct stat own = {};
  if (!isTheirs && fstat(descriptor, &own) != 0) return false;
  mode_t mode = old.st_mode & 0777;
  if (!isTheirs && own.st_gid != old.st_gid) mode &= 0707;
  return fchmod(descriptor, mode) == 0;
}

}  // namespace

void RequireOutside(const std::string& store, const std::string& path) {
  struct stat own = {};
  if (stat(store.c_str(), &own) != 0) return;
  std::string place = path;
  while (place.size() > 1 && place.back() == '/') place.pop_back();
  const size_t slash = place.find_last_of('/');
  place = slash == std::string::npos ? "." : place.substr(0, slash + 1);
  // Up to the root, which is above itself.
  for (struct stat above = {}, status = {}; stat(place.c_str(), &status) == 0 && !IsSame(status, above);
       place += "/..") {
    if (IsSame(status, own)) {
      throw SystemFailure(Inspect::Printable(path) + " lies in the directory of the store",
                          "Nothing was written; choose a place outside " + Inspect::Printable(store) + ".");
    }
    above = status;
  }
}

// A device or a pipe can't be renamed over, and is written as it is.
OutputFile::OutputFile(const std::string& path) : path_(path) {
  struct stat status = {};
  const bool exists = stat(path.c_str(), &status) == 0;
  const bool special = exists && !S_ISREG(status.st_mode);
  partial_ = special ? path : path + ".partial-" + std::to_string(getpid());
  descriptor_ =
      open(partial_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | (special ? 0 : O_TRUNC), exists ? 0600 : 0666);
  if (descriptor_ < 0) Fail();
  if (exists && !special && !TakeOver(descriptor_, status)) Fail();
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
