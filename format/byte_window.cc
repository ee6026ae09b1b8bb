#include "format/byte_window.h"

#include <algorithm>
#include <cstring>

namespace Kestrun {

void ByteWindow::LimitTo(uint64_t size) {
  if (size < capacity_) capacity_ = static_cast<size_t>(size);
}

ByteWindow::Result ByteWindow::View(uint64_t offset, size_t length, const uint8_t** bytes) {
  const bool shown = offset >= start_ && offset - start_ <= held_ && held_ - (offset - start_) >= length;
  if (!shown) {
    const size_t wanted = std::max(capacity_, length);
    if (buffer_.size() < wanted) buffer_.resize(wanted);
    const ssize_t read = source_.ReadAt(offset, buffer_.data(), wanted);
    start_ = offset;
    held_ = read < 0 ? 0 : static_cast<size_t>(read);
    if (read < 0) return Result::Failed;
    if (held_ < length) return Result::Short;
  }
  *bytes = buffer_.data() + (offset - start_);
  return Result::Ok;
}

bool ByteWindow::Copy(uint64_t offset, void* buffer, size_t length) {
  const uint8_t* bytes = nullptr;
  if (length == 0) return true;
  if (View(offset, length, &bytes) != Result::Ok) return false;
  if (length != 0) std::memcpy(buffer, bytes, length);
  return true;
}

void ByteWindow::Release() {
  buffer_ = {};
  held_ = 0;
}

}  // namespace Kestrun
