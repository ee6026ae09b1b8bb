// record/schema_format.h: the text file meta_v5, one record type per line.
//
//   1#Point x:%i4,y:%i4
//   2#Note body:%s
//
// A line is a number in decimal, "#" and the text of the record type. It ends with a line break or a NUL;
// what stands behind the last line end is not read. What stands behind a second "#" is dropped. A line
// without "#" is skipped. Of two lines with the same number or the same text the later one counts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace Kestrun {

inline constexpr char kSchemaFileName[] = "meta_v5";

// Takes a schema file apart, piece by piece as it is read.
class SchemaLineReader {
 public:
  using Visit = std::function<void(uint16_t id, const std::string& text)>;

  // Calls `visit` for every line that ends within the next `size` bytes of the file and that has a number
  // and a text. The number counts modulo 65536, and is 0 where there are no digits. The text may not be that
  // of a record type.
  void Feed(const char* bytes, size_t size, const Visit& visit);

 private:
  std::string line_;  // the line that has not ended yet
};

// The line of a record type, with its line end. Nothing about `text` is checked.
std::string SchemaLine(uint64_t id, const std::string& text);

}  // namespace Kestrun
