#include "tools/text_buffer.h"

#include <cstring>

namespace Kestrun::Tools {
namespace {

constexpr size_t kTextPiece = 1 << 20;
constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

}  // namespace

TextBuffer::TextBuffer(const std::string& path) : file_(path), bytes_(kTextPiece) {
  while (end_ < 3 && More()) {
  }
  if (View().substr(0, 3) == kByteOrderMark) Consume(3);
}

bool TextBuffer::More() {
  if (ended_) return false;
  if (begin_ != 0) {
    std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == bytes_.size()) {
    if (bytes_.size() >= kMaxRow) return false;
    bytes_.resize(bytes_.size() * 2);
  }
  const size_t count = file_.Read(bytes_.data() + end_, bytes_.size() - end_);
  end_ += count;
  ended_ = count == 0;
  return !ended_;
}

bool TextBuffer::FindLine(size_t from, size_t* size, size_t* whole) {
  for (size_t looked = from;;) {
    const std::string_view view = View();
    const size_t end = view.find('\n', looked);
    if (end != std::string_view::npos) {
      *whole = end + 1;
      *size = end > 0 && view[end - 1] == '\r' ? end - 1 : end;
      return true;
    }
    looked = view.size();
    if (More()) continue;
    *size = *whole = View().size();
    return *size > from || !ended_;
  }
}

}  // namespace Kestrun::Tools
