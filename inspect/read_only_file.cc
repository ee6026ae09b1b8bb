#include "inspect/read_only_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace Kestrun::Inspect {

std::optional<ReadOnlyFile> ReadOnlyFile::Open(const std::string& path, std::string* why) {
  // Without O_NONBLOCK a named pipe would wait for a writer.
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    *why = std::strerror(errno);
    return std::nullopt;
  }
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) {
    *why = std::strerror(errno);
  } else if (!S_ISREG(status.st_mode)) {
    *why = "not a regular file";
  } else {
    return ReadOnlyFile(descriptor, static_cast<uint64_t>(status.st_size), path);
  }
  close(descriptor);
  return std::nullopt;
}

ReadOnlyFile::ReadOnlyFile(int descriptor, uint64_t size, std::string path)
    : descriptor_(descriptor), size_(size), path_(std::move(path)) {}

ReadOnlyFile::ReadOnlyFile(ReadOnlyFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), size_(other.size_), path_(std::move(other.path_)) {}

ReadOnlyFile& ReadOnlyFile::operator=(ReadOnlyFile&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(size_, other.size_);
  std::swap(path_, other.path_);
  return *this;
}

ReadOnlyFile::~ReadOnlyFile() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool ReadOnlyFile::ReadAt(uint64_t offset, void* out, size_t size) const {
  if (offset > size_ || size > size_ - offset) return false;
  return ReadSome(offset, out, size) == static_cast<ssize_t>(size);
}

ssize_t ReadOnlyFile::ReadSome(uint64_t offset, void* out, size_t size) const {
  auto* bytes = static_cast<uint8_t*>(out);
  size_t done = 0;
  while (done < size) {
    const size_t piece = std::min<size_t>(size - done, std::numeric_limits<int32_t>::max());
    const ssize_t got = pread(descriptor_, bytes + done, piece, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

ssize_t FileSource::ReadAt(uint64_t offset, void* buffer, size_t length) {
  if (offset >= file_.Size()) return 0;
  return file_.ReadSome(offset, buffer,
                        static_cast<size_t>(std::min<uint64_t>(length, file_.Size() - offset)));
}

bool FileSource::Size(uint64_t* size) {
  *size = file_.Size();
  return true;
}

bool FileWindow::ReadAt(uint64_t offset, void* out, size_t size) {
  if (size > windowSize_) return file_.ReadAt(offset, out, size);
  if (offset > file_.Size() || size > file_.Size() - offset) return false;

  const bool held = offset >= start_ && offset - start_ <= bytes_.size() &&
                    size <= bytes_.size() - static_cast<size_t>(offset - start_);
  if (!held) {
    bytes_.resize(static_cast<size_t>(std::min<uint64_t>(windowSize_, file_.Size() - offset)));
    start_ = offset;
    if (!file_.ReadAt(offset, bytes_.data(), bytes_.size())) {
      // The file has shrunk: what is asked for may still be there.
      bytes_.clear();
      return file_.ReadAt(offset, out, size);
    }
  }
  if (size > 0) std::memcpy(out, bytes_.data() + static_cast<size_t>(offset - start_), size);
  return true;
}

}  // namespace Kestrun::Inspect
