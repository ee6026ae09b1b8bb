#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/wal_reader.h"
#include "inspect/dump_parts.h"
#include "inspect/escape.h"

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

void DumpRecord(const WalRecordView& record, uint64_t number, FieldWriter* writer) {
  const WalRecord& header = record.header;
  writer->Part("record " + std::to_string(number) + (header.deleted != 0 ? ", a deletion" : ""));
  writer->Field(4, "valueOffset", std::to_string(header.valueOffset));
  writer->Field(4, "valueSize", std::to_string(header.valueSize));
  writer->Field(1, "deleted", std::to_string(header.deleted));
  if (IsMarked(header)) {
    writer->Field(4, "epoch", std::to_string(EpochOf(header)));
    writer->Field(3, "padding");
  } else {
    writer->Field(7, "padding");
  }
  writer->Field(8, "timestamp", TimeMeaning(header.timestamp));
  writer->Field(4, "ttl", std::to_string(header.ttl));
  if (IsMarked(header)) {
    writer->Field(4, "crc", "right");
  } else {
    writer->Field(4, "padding");
  }
  writer->Field(2, "keySize", std::to_string(header.keySize));
  if (IsMarked(header)) {
    writer->Field(2, "mark", "key and value have a checksum");
  } else {
    writer->Field(2, "padding");
  }
  writer->Field(4, "checksum",
                ChecksumMeaning(header.checksum, StoreChecksum(&header, WalRecordOffset::kChecksum)));
  writer->Field(header.keySize, "key");
  writer->Field(header.valueSize, "value");
}

}  // namespace

void DumpLog(const ReadOnlyFile& file, FieldWriter* writer) {
  FileSource source(file);
  const WalHeaderView view = ReadWalHeader(source);
  if (!view.complete) return;
  DumpHeader(view.header, writer);

  // Under a broken header the used area may be anything: whatever still is a record is shown.
  const uint64_t used = view.Usable() ? view.header.used : file.Size();
  uint64_t number = 0;
  WalReader reader(source, used, file.Size());
  while (!writer->Failed() && reader.Next()) DumpRecord(reader.Record(), ++number, writer);
  if (reader.Offset() < std::min(used, file.Size()) && view.Usable()) {
    writer->Part("used and not readable");
    writer->Field(std::min(used, file.Size()) - reader.Offset(), "bytes");
  }
  if (writer->Position() < file.Size()) {
    writer->Part("free");
    writer->Filler(file.Size(), "free");
  }
}

}  // namespace Kestrun::Inspect
