#include "format/file_magic.h"
#include "format/wal_reader.h"
#include "inspect/escape.h"
#include "inspect/verify_file.h"

namespace Kestrun::Inspect {
namespace {

bool VerifyHeader(const ReadOnlyFile& file, const WalHeaderView& view, const std::string& name,
                  VerifyReport* report) {
  if (!view.complete) {
    report->Damage(name, 0,
                   "the file has " + std::to_string(file.Size()) + " bytes and ends inside its header");
    return false;
  }
  if (!view.checksumMatches) {
    report->Damage(name, WalHeaderOffset::kChecksum, "the header fails its checksum");
  }
  if (!view.magicMatches) {
    report->Damage(name, WalHeaderOffset::kMagic, "the file does not begin as a file of a store");
  }
  if (!view.Usable()) return false;

  if (view.header.version != kFormatVersion) {
    report->Damage(name, WalHeaderOffset::kVersion,
                   "the version is " + std::to_string(view.header.version) + " and not " +
                       std::to_string(kFormatVersion));
  }
  if (view.header.used < kWalFirstRecord) {
    report->Damage(name, WalHeaderOffset::kUsed,
                   "the used area ends at " + std::to_string(view.header.used) + ", inside the header");
  } else if (view.header.used > file.Size()) {
    report->Damage(name, WalHeaderOffset::kUsed,
                   "the used area ends at " + std::to_string(view.header.used) +
                       ", behind the file's end at " + std::to_string(file.Size()));
  }
  return true;
}

void VerifyRecord(const WalRecordView& record, const std::string& name, VerifyReport* report) {
  if (record.header.valueOffset != record.valueOffset) {
    report->Damage(name, record.offset + WalRecordOffset::kValueOffset,
                   "the record of \"" + Printable(record.key) + "\" points to a value at " +
                       std::to_string(record.header.valueOffset) + " where its own lies at " +
                       std::to_string(record.valueOffset));
  }
  if (record.header.deleted != 0 && record.header.valueSize != 0) {
    report->Damage(name, record.offset + WalRecordOffset::kDeleted,
                   "the deletion of \"" + Printable(record.key) + "\" carries a value");
  }
}

std::string WhyEnded(WalEnd end) {
  switch (end) {
    case WalEnd::BadChecksum:
      return "the record fails its checksum";
    case WalEnd::EmptyKey:
      return "the record has no key";
    case WalEnd::BeyondFile:
      return "the record ends behind the end of the file";
    case WalEnd::BadContent:
      return "the key and the value of the record are not those that were written";
    case WalEnd::OtherEpoch:
      return "the record is one from before the log was emptied";
    default:
      return "the record can't be read";
  }
}

void VerifyEnd(const WalReader& reader, uint64_t used, const std::string& name, VerifyReport* report) {
  if (reader.End() == WalEnd::BeyondUsed) {
    report->Damage(name, WalHeaderOffset::kUsed,
                   "the used area ends at " + std::to_string(used) + ", inside the record that ends at " +
                       std::to_string(reader.ToldEnd()));
  } else if (reader.End() != WalEnd::Complete) {
    report->Damage(name, reader.Offset(),
                   WhyEnded(reader.End()) + "; nothing from here to the end of the used area at " +
                       std::to_string(used) + " is readable");
  } else if (reader.Offset() < used) {
    report->Damage(name, reader.Offset(),
                   std::to_string(used - reader.Offset()) + " bytes of the used area are not a record");
  }
}

}  // namespace

void VerifyLog(const ReadOnlyFile& file, const std::string& name, VerifyReport* report) {
  FileSource source(file);
  const WalHeaderView view = ReadWalHeader(source);
  if (!VerifyHeader(file, view, name, report)) return;

  uint64_t unflushed = 0;
  uint64_t firstUnflushed = 0;
  WalReader reader(source, view.header.used, file.Size());
  while (reader.Next()) {
    const WalRecordView& record = reader.Record();
    VerifyRecord(record, name, report);
    const auto first = static_cast<unsigned char>(record.key.front());
    if (first >= kFirstUnflushedByte && unflushed++ == 0) firstUnflushed = record.offset;
  }
  report->logRecords += reader.Records();
  if (view.header.used <= file.Size()) VerifyEnd(reader, view.header.used, name, report);
  if (unflushed != 0) {
    report->Note(name, firstUnflushed,
                 std::to_string(unflushed) +
                     (unflushed == 1 ? " record has a key that begins" : " records have keys that begin") +
                     " with the byte 0xFF, which the next flush drops");
  }
}

}  // namespace Kestrun::Inspect
