#include "tools/csv_rows.h"

#include <csv.h>

#include <new>

#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr size_t kMaxRow = size_t{256} << 20;

// What the parser calls back with while a line is fed to it.
struct Collector {
  std::vector<std::string>* fields;
  uint64_t rows = 0;
};

void OnField(void* bytes, size_t size, void* collector) {
  static_cast<Collector*>(collector)->fields->emplace_back(static_cast<const char*>(bytes), size);
}

void OnRow(int /*terminator*/, void* collector) {
  ++static_cast<Collector*>(collector)->rows;
}

// Blanks around a field belong to it.
int NoSpace(unsigned char /*byte*/) {
  return 0;
}

// The part of a line before its LF or CRLF.
size_t BodySize(const std::string& line) {
  size_t size = line.size();
  if (size > 0 && line[size - 1] == '\n') --size;
  if (size < line.size() && size > 0 && line[size - 1] == '\r') --size;
  return size;
}

// Takes one row apart.
class RowParser {
 public:
  explicit RowParser(std::vector<std::string>* fields) : collector_{fields} {
    if (csv_init(&state_, CSV_STRICT | CSV_STRICT_FINI) != 0) throw std::bad_alloc();
    csv_set_space_func(&state_, NoSpace);
  }
  ~RowParser() { csv_free(&state_); }
  RowParser(const RowParser&) = delete;
  RowParser& operator=(const RowParser&) = delete;

  bool RowEnded() const { return collector_.rows != 0; }

  // Takes a line, of which the first `body` bytes stand before its end. Returns what is wrong with it.
  std::string Feed(const std::string& line, size_t body) {
    if (!Parse(line.data(), body)) return Problem();
    if (RowEnded()) return "a carriage return without a line feed stands outside of quotes";
    return Parse(line.data() + body, line.size() - body) ? std::string() : Problem();
  }

  // The file ends here.
  std::string Finish() {
    const bool whole = csv_fini(&state_, OnField, OnRow, &collector_) == 0;
    return whole ? std::string() : "a quote is opened and never closed";
  }

 private:
  bool Parse(const char* bytes, size_t size) {
    return csv_parse(&state_, bytes, size, OnField, OnRow, &collector_) == size;
  }

  std::string Problem() {
    const int error = csv_error(&state_);
    return error == CSV_EPARSE
               ? "a quote stands where none may be; a field with quotes is quoted and they are doubled"
               : csv_strerror(error);
  }

  csv_parser state_;
  Collector collector_;
};

}  // namespace

struct CsvRowReader::Record {
  uint64_t line = 0;
  std::string raw;
  std::string problem;
  std::vector<std::string> fields;
};

void CsvRowReader::Restart() {
  file_->Seek(0);
  line_ = 0;
  Record header;
  if (!ReadRecord(&header))
    throw InputError(file_->Name() + " is empty; CSV begins with a line of column names");
  if (!header.problem.empty()) throw InputError(file_->Name() + ": the header: " + header.problem);
  columns_ = std::move(header.fields);
}

bool CsvRowReader::Next(Row* row) {
  Record record;
  if (!ReadRecord(&record)) return false;
  *row = Row();
  row->line = record.line;
  row->raw = std::move(record.raw);
  row->problem = std::move(record.problem);
  if (row->problem.empty() && record.fields.size() != columns_.size()) {
    row->problem = "the row has " + std::to_string(record.fields.size()) + " fields where the header has " +
                   std::to_string(columns_.size());
  }
  if (!row->problem.empty()) return true;
  for (size_t i = 0; i < columns_.size(); ++i) {
    row->cells.emplace_back(columns_[i], Cell{Cell::Kind::Text, std::move(record.fields[i])});
  }
  return true;
}

// Feeds lines to the parser until a row is complete. A row that can't be right ends with its first line, so
// that a quote that is never closed takes no more than that line with it.
bool CsvRowReader::ReadRecord(Record* record) {
  RowParser parser(&record->fields);
  uint64_t secondLine = 0;
  std::string line;
  while (record->problem.empty() && !parser.RowEnded() && file_->ReadLine(&line)) {
    ++line_;
    if (line_ == 1 && line.compare(0, 3, kByteOrderMark) == 0) line.erase(0, 3);
    const size_t body = BodySize(line);
    if (record->line == 0) {
      if (body == 0) continue;
      record->line = line_;
      secondLine = file_->Position();
    }
    record->problem = parser.Feed(line, body);
    record->raw.append(line, 0, parser.RowEnded() ? body : line.size());
    if (record->raw.size() > kMaxRow) record->problem = "the row is longer than 256 MiB";
  }
  if (record->line == 0) return false;
  if (record->problem.empty() && !parser.RowEnded()) record->problem = parser.Finish();
  if (!record->problem.empty()) {
    file_->Seek(secondLine);
    line_ = record->line;
  }
  return true;
}

void AppendCsvRow(const std::vector<std::string>& fields, std::string* out) {
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i != 0) *out += ',';
    // A row of one empty field would be an empty line.
    const bool quoted =
        fields[i].find_first_of(",\"\r\n") != std::string::npos || (fields[i].empty() && fields.size() == 1);
    if (!quoted) {
      *out += fields[i];
      continue;
    }
    const size_t start = out->size();
    out->resize(start + csv_write(nullptr, 0, fields[i].data(), fields[i].size()));
    csv_write(out->data() + start, out->size() - start, fields[i].data(), fields[i].size());
  }
  *out += '\n';
}

}  // namespace Kestrun::Tools
