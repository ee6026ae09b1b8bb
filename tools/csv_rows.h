// tools/csv_rows.h: reads CSV as RFC 4180 describes it: a header, then rows; quoted fields may hold commas,
// quotes and line ends; lines end with LF or CRLF; a byte order mark at the beginning is passed over. Empty
// lines are no rows.
#pragma once

#include <string>
#include <vector>

#include "tools/rows.h"

namespace Kestrun::Tools {

class CsvRowReader final : public RowReader {
 public:
  explicit CsvRowReader(InputFile* file) : file_(file) { Restart(); }

  bool Next(Row* row) override;
  void Restart() override;
  const std::vector<std::string>* Columns() const override { return &columns_; }

 private:
  struct Record;

  bool ReadRecord(Record* record);

  InputFile* file_;
  std::vector<std::string> columns_;
  uint64_t line_ = 0;  // lines read so far
};

// Appends a row, line end included. Fields are quoted where they must be.
void AppendCsvRow(const std::vector<std::string>& fields, std::string* out);

}  // namespace Kestrun::Tools
