// record/schema_format.h: the lines of meta_v5 as a schema takes them (format/schema_reader.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "format/file_names.h"
#include "format/schema_reader.h"

namespace Kestrun {

// Takes a schema file apart, piece by piece as it is read.
class SchemaLineReader {
 public:
  using Visit = std::function<void(uint16_t id, const std::string& text)>;

  // Calls `visit` for every line that ends within the next `size` bytes of the file and that has a number
  // and a text. The text may not be that of a record type.
  void Feed(const char* bytes, size_t size, const Visit& visit) {
    reader_.Feed(bytes, size, [&visit](const SchemaLineView& line) {
      if (line.isEntry) visit(line.id, line.text);
      return true;
    });
  }

 private:
  SchemaReader reader_;
};

}  // namespace Kestrun
