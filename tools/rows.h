// tools/rows.h: the rows of a CSV or JSON Lines file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/input.h"

namespace Kestrun::Tools {

// One value of a row.
struct Cell {
  enum class Kind {
    Text,     // a field of CSV: numbers and hexadecimal digits stand in it as text
    String,   // of JSON
    Integer,  // of JSON, `text` is its decimal form
    Real,     // of JSON, `text` is the number as it stands in the file
    Bytes,    // {"hex": ...} of JSON, `text` is the bytes
    Other,    // of JSON: null, true, false, arrays, other objects
  };
  Kind kind = Kind::Text;
  std::string text;
};

struct Row {
  uint64_t line = 0;    // number of the line on which it begins, from 1
  std::string raw;      // as it stands in the file, without its line end
  std::string problem;  // why it can't be read; empty when it can
  std::vector<std::pair<std::string, Cell>> cells;

  const Cell* Find(const std::string& name) const;
};

// Reads the rows of a file one by one.
class RowReader {
 public:
  virtual ~RowReader() = default;
  // The next row, also when it has a problem; false at the end.
  virtual bool Next(Row* row) = 0;
  // Goes back to the first row.
  virtual void Restart() = 0;
  // The names that every row has; null when each row has its own.
  virtual const std::vector<std::string>* Columns() const = 0;
};

enum class RowFormat { Csv, JsonLines };

// The file must outlive the reader. Throws InputError when a CSV file has no header.
std::unique_ptr<RowReader> MakeRowReader(InputFile* file, RowFormat format);

// The format that a file name or `--format` asks for: "csv" and "jsonl"; JSON Lines when neither tells.
// Throws UsageError for another `format`.
RowFormat ChooseFormat(const std::string& format, const std::string& path);

}  // namespace Kestrun::Tools
