#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "inspect/dump_parts.h"
#include "inspect/escape.h"
#include "inspect/log_file.h"

namespace Kestrun::Inspect {
namespace {

void DumpHeader(const WalHeader& header, FieldWriter* writer) {
  writer->Part("header");
  writer->Field(8, "magic", Printable({reinterpret_cast<const char*>(header.magic), sizeof(header.magic)}));
  writer->Field(4, "version", std::to_string(header.version));
  writer->Field(4, "used", std::to_string(header.used));
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, WalHeaderOffset::kChecksum)));
  writer->Field(4, "reserved", std::to_string(header.reserved));
  writer->Filler(kWalFirstRecord, "unused");
}

void DumpRecord(const LogRecordView& record, uint64_t number, FieldWriter* writer) {
  const WalRecord& header = record.header;
  writer->Part("record " + std::to_string(number) + (header.deleted != 0 ? ", a deletion" : ""));
  writer->Field(4, "valueOffset", std::to_string(header.valueOffset));
  writer->Field(4, "valueSize", std::to_string(header.valueSize));
  writer->Field(1, "deleted", std::to_string(header.deleted));
  writer->Field(7, "padding");
  writer->Field(8, "timestamp", TimeMeaning(header.timestamp));
  writer->Field(4, "ttl", std::to_string(header.ttl));
  writer->Field(4, "padding");
  writer->Field(2, "keySize", std::to_string(header.keySize));
  writer->Field(2, "padding");
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, WalRecordOffset::kChecksum)));
  writer->Field(header.keySize, "key");
  writer->Field(header.valueSize, "value");
}

}  // namespace

void DumpLog(const ReadOnlyFile& file, FieldWriter* writer) {
  const LogHeaderView view = ReadLogHeader(file);
  if (!view.complete) return;
  DumpHeader(view.header, writer);

  // Under a broken header the used area may be anything: whatever still is a record is shown.
  const uint64_t used = view.Usable() ? view.header.used : file.Size();
  uint64_t number = 0;
  const LogScan scan = ScanLog(file, used, [&number, writer](const LogRecordView& record) {
    DumpRecord(record, ++number, writer);
    return !writer->Failed();
  });
  if (scan.endOffset < std::min(used, file.Size()) && view.Usable()) {
    writer->Part("used and not readable");
    writer->Field(std::min(used, file.Size()) - scan.endOffset, "bytes");
  }
  if (writer->Position() < file.Size()) {
    writer->Part("free");
    writer->Filler(file.Size(), "free");
  }
}

}  // namespace Kestrun::Inspect
