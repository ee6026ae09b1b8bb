#include "format/byte_window.h"

namespace Kestrun {

bool ByteWindow::ReadExactly(uint64_t offset, void* buffer, size_t length) {
  if (length > windowSize_) return Kestrun::ReadExactly(source_, offset, buffer, length);
  const bool held = offset >= start_ && offset - start_ <= held_ && length <= held_ - (offset - start_);
  if (!held) {
    bytes_.resize(windowSize_);
    const ssize_t count = source_.ReadAt(offset, bytes_.data(), windowSize_);
    start_ = offset;
    held_ = count < 0 ? 0 : static_cast<size_t>(count);
    // What can't be read behind the piece does not matter.
    if (length > held_) return count < 0 && Kestrun::ReadExactly(source_, offset, buffer, length);
  }
  if (length > 0) std::memcpy(buffer, bytes_.data() + (offset - start_), length);
  return true;
}

}  // namespace Kestrun
