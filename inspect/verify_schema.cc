#include <map>

#include "inspect/escape.h"
#include "inspect/schema_lines.h"
#include "inspect/verify_file.h"

namespace Kestrun::Inspect {
namespace {

std::string Quoted(const std::string& text) {
  constexpr size_t kShown = 80;
  return "\"" + Printable(text.substr(0, kShown)) + (text.size() > kShown ? "...\"" : "\"");
}

void VerifyLine(const SchemaLineView& line, const std::string& name, VerifyReport* report) {
  if (line.size > kMaxSchemaLine) {
    report->Damage(name, line.offset,
                   "a line of " + std::to_string(line.size) + " bytes is too long for a record type");
  } else if (!line.ended) {
    report->Damage(name, line.offset, "the last line, " + Quoted(line.line) + ", has no end and is not read");
  } else if (!line.IsRecordType()) {
    report->Damage(name, line.offset, "the line " + Quoted(line.line) + " is not a record type");
  } else if (!line.idIsPlain) {
    report->Damage(name, line.offset,
                   "the id of " + Quoted(line.line) + " is read as " + std::to_string(line.id));
  } else if (line.textIsCut) {
    report->Damage(name, line.offset, "the line " + Quoted(line.line) + " is cut at its second '#'");
  } else if (line.endedByNul) {
    report->Damage(name, line.offset + line.size, "a NUL byte ends the line " + Quoted(line.line));
  }
}

}  // namespace

void VerifySchema(const ReadOnlyFile& file, const std::string& name, VerifyReport* report) {
  std::map<uint16_t, std::string> texts;
  const bool whole = ScanSchema(file, [&](const SchemaLineView& line) {
    VerifyLine(line, name, report);
    if (!line.IsRecordType()) return true;
    const auto [known, isNew] = texts.emplace(line.id, line.text);
    if (!isNew && known->second != line.text) {
      report->Damage(name, line.offset,
                     "id " + std::to_string(line.id) + " stands for " + Quoted(known->second) + " and for " +
                         Quoted(line.text) + "; the later line wins");
    }
    return true;
  });
  report->recordTypes = texts.size();
  if (!whole) report->Damage(name, 0, "the file can't be read to its end");
}

}  // namespace Kestrun::Inspect
