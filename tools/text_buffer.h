// tools/text_buffer.h: a file as text that is looked at in place, line by line or further.
//
// Views into the buffer are valid until More or Consume is called.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/input.h"

namespace Kestrun::Tools {

class TextBuffer {
 public:
  // What is longer than this is no row.
  static constexpr size_t kMaxRow = size_t{256} << 20;

  explicit TextBuffer(const std::string& path);

  // What was read and not consumed yet.
  std::string_view View() const { return {bytes_.data() + begin_, end_ - begin_}; }
  // Reads more; false at the end of the file, and when nobody wants a row that long.
  bool More();
  void Consume(size_t size) { begin_ += size; }
  bool AtEnd() const { return ended_; }

  // Whether a whole line stands in View, with its end or at the end of the file; `*size` is its size without
  // its LF or CRLF and `*whole` with it.
  bool FindLine(size_t from, size_t* size, size_t* whole);

  InputFile& File() { return file_; }
  const InputFile& File() const { return file_; }
  uint64_t Position() const { return file_.Position() - (end_ - begin_); }

 private:
  InputFile file_;
  std::vector<char> bytes_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool ended_ = false;
};

}  // namespace Kestrun::Tools
