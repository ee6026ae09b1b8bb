#include "block/buffered_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/diagnostics.h"

namespace Kestrun {
namespace {

constexpr size_t kBufferSize = 1024 * 1024;
constexpr size_t kMinStarted = kBufferSize / 4;

}  // namespace

BufferedWriter::BufferedWriter(std::shared_ptr<OsFile> file) : file_(std::move(file)), buffer_(kBufferSize) {}

bool BufferedWriter::Append(const void* bytes, size_t size) {
  if (size > buffer_.size() - held_) {
    if (!Flush()) return false;
    if (size >= buffer_.size()) return Write(bytes, size);
  }
  if (size != 0) std::memcpy(buffer_.data() + held_, bytes, size);
  held_ += size;
  return true;
}

bool BufferedWriter::AppendFrom(ByteSource& source, uint64_t offset, uint64_t size) {
  while (size != 0) {
    if (held_ == buffer_.size() && !Flush()) return false;
    const auto piece = static_cast<size_t>(std::min<uint64_t>(size, buffer_.size() - held_));
    if (source.ReadAt(offset, buffer_.data() + held_, piece) != static_cast<ssize_t>(piece)) return false;
    held_ += piece;
    offset += piece;
    size -= piece;
  }
  return true;
}

bool BufferedWriter::MoveTo(uint64_t offset) {
  if (!Flush()) return false;
  start_ = offset;
  return true;
}

bool BufferedWriter::Flush() {
  const size_t held = std::exchange(held_, 0);
  return held == 0 || Write(buffer_.data(), held);
}

bool BufferedWriter::Write(const void* bytes, size_t size) {
  errno = 0;
  const ssize_t written = file_->PWriteFully(bytes, size, static_cast<int64_t>(start_));
  if (written != static_cast<ssize_t>(size)) {
    const int error = errno;
    Diagnostics::HandlerOnly().Printf("Failed to write %s: %s\n", file_->Path().c_str(),
                                      std::strerror(error));
    return false;
  }
  // The disk works while the next piece is being made.
  if (size >= kMinStarted) file_->StartWriting(start_, size);
  start_ += size;
  return true;
}

}  // namespace Kestrun
