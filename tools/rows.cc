#include "tools/rows.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr struct {
  const char* name;
  RowFormat format;
} kFormats[] = {{"csv", RowFormat::Csv},
                {"tsv", RowFormat::Tsv},
                {"jsonl", RowFormat::JsonLines},
                {"json", RowFormat::Json},
                {"sqlite", RowFormat::Sqlite}};

constexpr struct {
  const char* ending;
  RowFormat format;
} kEndings[] = {
    {".csv", RowFormat::Csv},         {".tsv", RowFormat::Tsv},          {".tab", RowFormat::Tsv},
    {".jsonl", RowFormat::JsonLines}, {".ndjson", RowFormat::JsonLines}, {".json", RowFormat::Json},
    {".db", RowFormat::Sqlite},       {".sqlite", RowFormat::Sqlite},    {".sqlite3", RowFormat::Sqlite}};

}  // namespace

const char* FormatName(RowFormat format) {
  for (const auto& known : kFormats) {
    if (known.format == format) return known.name;
  }
  return "";
}

RowFormat FormatOf(const Invocation& line, const std::string& path) {
  if (const std::string* name = line.Find("--format")) {
    for (const auto& known : kFormats) {
      if (*name == known.name) return known.format;
    }
    throw UsageError("--format takes csv, tsv, jsonl, json or sqlite, not \"" + Inspect::Printable(*name) +
                     "\"");
  }
  std::string lower = path;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
  });
  for (const auto& known : kEndings) {
    if (lower.ends_with(known.ending)) return known.format;
  }
  return RowFormat::JsonLines;
}

char DelimiterOf(const Invocation& line, RowFormat format) {
  const std::string* text = line.Find("--delimiter");
  if (text == nullptr) return ',';
  if (format != RowFormat::Csv) throw UsageError("--delimiter is for CSV only");
  const std::string delimiter = *text == "\\t" ? "\t" : *text;
  if (delimiter.size() != 1 || delimiter[0] == '"' || delimiter[0] == '\n' || delimiter[0] == '\r') {
    throw UsageError(
        "--delimiter takes one character that is no quote and no line end, such as ';' or '\\t'");
  }
  return delimiter[0];
}

std::unique_ptr<RowSource> OpenRows(const Invocation& line, const std::string& path, RowFormat format) {
  const char delimiter = DelimiterOf(line, format);
  if (format != RowFormat::Sqlite && line.Has("--table")) throw UsageError("--table is for SQLite only");
  switch (format) {
    case RowFormat::Csv:
      return OpenCsvRows(path, delimiter);
    case RowFormat::Tsv:
      return OpenTsvRows(path);
    case RowFormat::Sqlite:
      return OpenSqliteRows(path, line.Find("--table"), !line.Has("--type"));
    default:
      return OpenJsonRows(path, format);
  }
}

}  // namespace Kestrun::Tools
