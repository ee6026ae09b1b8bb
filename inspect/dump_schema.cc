#include "inspect/dump_parts.h"
#include "inspect/schema_lines.h"

namespace Kestrun::Inspect {

void DumpSchema(const ReadOnlyFile& file, FieldWriter* writer) {
  writer->Part("record types");
  ScanSchema(file, [writer](const SchemaLineView& line) {
    writer->Filler(line.offset, "empty line");
    std::string meaning = "not a record type";
    if (!line.ended) {
      meaning = "a line without an end, which is not read";
    } else if (line.IsRecordType()) {
      meaning = "record type " + std::to_string(line.id);
    }
    writer->Field(line.size, "line", meaning);
    if (line.ended) writer->Field(1, "lineEnd");
    return !writer->Failed();
  });
}

}  // namespace Kestrun::Inspect
