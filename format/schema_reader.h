// format/schema_reader.h: the one reader of the record types of a store, the text file meta_v5.
//
//   1#Point x:%i4,y:%i4
//   2#Note body:%s
//
// A line is a number in decimal, "#" and the text of the record type. It ends with a line break or a
// NUL; what stands after the last line end is not read. What stands after a second "#" is dropped. A
// line without "#", or with nothing after it, is skipped. Of two lines with the same number or the same
// text the later one counts.
//
// Threads: one at a time. Failure: may throw std::bad_alloc. Units: offsets are bytes from
// the start of the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace Kestrun {

struct SchemaLineView {
  uint64_t offset = 0;
  uint64_t size = 0;   // without its end
  std::string line;    // empty when it is longer than what is read
  bool ended = false;  // a line without an end is not read by a store
  bool endedByNul = false;

  // What a store makes of the line: a number and a text, or nothing.
  bool isEntry = false;
  uint16_t id = 0;         // the number modulo 65536, 0 without digits
  bool idIsPlain = false;  // the number is written as a store writes it, and fits into 16 bits
  std::string text;
  bool textIsCut = false;  // a second '#' and what follows it are dropped

  // The text can be that of a record type: something follows its first blank.
  bool IsRecordType() const;
};

// Takes a schema file apart, piece by piece as it is read.
class SchemaReader {
 public:
  // Returns false to stop.
  using Visit = std::function<bool(const SchemaLineView&)>;

  // Of lines longer than `maxLine` only the size is kept.
  explicit SchemaReader(size_t maxLine = SIZE_MAX) : maxLine_(maxLine) {}

  // Calls `visit` for every line, except empty ones, that ends within the next `size` bytes of the file.
  // False when the visitor has stopped.
  bool Feed(const char* bytes, size_t size, const Visit& visit);
  // The file ends here: visits the line that has no end, if there is one.
  void Finish(const Visit& visit);

 private:
  bool Deliver(bool ended, bool byNul, const Visit& visit);

  size_t maxLine_;
  SchemaLineView view_;  // the line that has not ended yet
};

// The line of a record type, with its line end. Nothing about `text` is checked.
std::string SchemaLine(uint64_t id, const std::string& text);

}  // namespace Kestrun
