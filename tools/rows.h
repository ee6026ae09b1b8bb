// tools/rows.h: the rows of a CSV, TSV, JSON Lines, JSON or SQLite file, one after the other.
//
// Failure: throws InputError when a file can't be read, and UsageError for options that do not fit.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/command_spec.h"

namespace Kestrun::Tools {

enum class RowFormat { Csv, Tsv, JsonLines, Json, Sqlite };

// One value of a row. Its text is valid until the next row is read.
struct Cell {
  enum class Kind {
    Text,    // a field of CSV, a text or number of SQLite: numbers and hexadecimal digits stand in it as text
    String,  // of JSON
    Integer,  // of JSON, `text` is its decimal form
    Real,     // of JSON, `text` is the number as it stands in the file
    Bytes,    // {"hex": ...} of JSON, a BLOB of SQLite; `text` is the bytes
    Null,     // of JSON and SQLite
    Other,    // of JSON: true, false, arrays, other objects
  };
  Kind kind = Kind::Text;
  std::string_view text;
};

struct Row {
  uint64_t line = 0;     // number of the line on which it begins, or of the row, from 1
  std::string_view raw;  // as it stands in the file, without its line end; empty where it is no text
  std::string problem;   // why it can't be read; empty when it can
  const std::vector<std::string>* names = nullptr;  // of the columns
  uint64_t shape = 0;       // another number where the names are others than the row before's
  std::vector<Cell> cells;  // one for each name
};

class RowSource {
 public:
  virtual ~RowSource() = default;
  // The next row, also when it has a problem; false at the end.
  virtual bool Next(Row* row) = 0;
  // The names that every row has; null when each row has its own.
  virtual const std::vector<std::string>* Columns() const = 0;
  // How far it is, and how far it goes, in the same unit; 0 when it is not known.
  virtual uint64_t Position() const = 0;
  virtual uint64_t Size() const = 0;
  // What messages call the file, and what comes before the number of a row in them: "line" or "row".
  virtual const std::string& Name() const = 0;
};

// The format that --format or a file's name asks for; JSON Lines when neither tells.
RowFormat FormatOf(const Invocation& line, const std::string& path);
const char* FormatName(RowFormat format);
// What --delimiter says.
char DelimiterOf(const Invocation& line, RowFormat format);

// The rows of a file, as the options say.
std::unique_ptr<RowSource> OpenRows(const Invocation& line, const std::string& path, RowFormat format);

std::unique_ptr<RowSource> OpenCsvRows(const std::string& path, char delimiter);
std::unique_ptr<RowSource> OpenTsvRows(const std::string& path);
std::unique_ptr<RowSource> OpenJsonRows(const std::string& path, RowFormat format);
// The rows of one table, or of all tables of a file that an export has made; `withTypes`
// gives these a column "type".
std::unique_ptr<RowSource> OpenSqliteRows(const std::string& path, const std::string* table, bool withTypes);

}  // namespace Kestrun::Tools
