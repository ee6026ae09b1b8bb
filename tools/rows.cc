#include "tools/rows.h"

#include <algorithm>

#include "tools/csv_rows.h"
#include "tools/failure.h"
#include "tools/json_rows.h"

namespace Kestrun::Tools {

const Cell* Row::Find(const std::string& name) const {
  const auto found =
      std::find_if(cells.begin(), cells.end(), [&name](const auto& cell) { return cell.first == name; });
  return found == cells.end() ? nullptr : &found->second;
}

std::unique_ptr<RowReader> MakeRowReader(InputFile* file, RowFormat format) {
  if (format == RowFormat::Csv) return std::make_unique<CsvRowReader>(file);
  return std::make_unique<JsonRowReader>(file);
}

RowFormat ChooseFormat(const std::string& format, const std::string& path) {
  if (format == "csv") return RowFormat::Csv;
  if (format == "jsonl") return RowFormat::JsonLines;
  if (!format.empty()) throw UsageError("--format takes csv or jsonl, not \"" + format + "\"");
  return path.ends_with(".csv") || path.ends_with(".CSV") ? RowFormat::Csv : RowFormat::JsonLines;
}

}  // namespace Kestrun::Tools
