#include "storage/file_window.h"

#include <algorithm>
#include <utility>

namespace Kestrun {

FileWindow::FileWindow(Source source, size_t capacity) : source_(std::move(source)), capacity_(capacity) {}

FileWindow::FileWindow(std::shared_ptr<OsFile> file, size_t capacity)
    : FileWindow([file = std::move(file)] { return file; }, capacity) {}

void FileWindow::LimitTo(uint64_t size) {
  if (size < capacity_) capacity_ = static_cast<size_t>(size);
}

FileWindow::Result FileWindow::View(uint64_t offset, size_t length, const uint8_t** bytes) {
  const bool shown = offset >= start_ && offset - start_ <= held_ && held_ - (offset - start_) >= length;
  if (!shown) {
    const std::shared_ptr<OsFile> file = source_();
    if (file == nullptr) return Result::Failed;
    const size_t wanted = std::max(capacity_, length);
    if (buffer_.size() < wanted) buffer_.resize(wanted);
    const ssize_t read = file->PReadFully(buffer_.data(), wanted, static_cast<int64_t>(offset));
    start_ = offset;
    held_ = read < 0 ? 0 : static_cast<size_t>(read);
    if (read < 0) return Result::Failed;
    if (held_ < length) return Result::Short;
  }
  *bytes = buffer_.data() + (offset - start_);
  return Result::Ok;
}

}  // namespace Kestrun
