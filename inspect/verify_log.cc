#include "format/file_magic.h"
#include "inspect/escape.h"
#include "inspect/log_file.h"
#include "inspect/verify_file.h"

namespace Kestrun::Inspect {
namespace {

// Keys that begin with this byte stay in the log and are lost when it is flushed.
constexpr char kUnflushedFirstByte = '\xFF';

bool VerifyHeader(const ReadOnlyFile& file, const LogHeaderView& view, const std::string& name,
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

void VerifyRecord(const LogRecordView& record, const std::string& name, VerifyReport* report) {
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

std::string WhyEnded(LogEnd end) {
  switch (end) {
    case LogEnd::BadChecksum:
      return "the record fails its checksum";
    case LogEnd::EmptyKey:
      return "the record has no key";
    case LogEnd::OutOfBounds:
      return "the record ends behind the end of the file";
    default:
      return "the record can't be read";
  }
}

void VerifyEnd(const LogScan& scan, uint64_t used, const std::string& name, VerifyReport* report) {
  if (scan.end != LogEnd::Complete) {
    report->Damage(name, scan.endOffset,
                   WhyEnded(scan.end) + "; nothing from here to the end of the used area at " +
                       std::to_string(used) + " is readable");
  } else if (scan.endOffset < used) {
    report->Damage(name, scan.endOffset,
                   std::to_string(used - scan.endOffset) + " bytes of the used area are not a record");
  } else if (scan.endOffset > used && used >= kWalFirstRecord) {
    report->Damage(name, WalHeaderOffset::kUsed,
                   "the used area ends at " + std::to_string(used) + ", inside the record that ends at " +
                       std::to_string(scan.endOffset));
  }
}

}  // namespace

void VerifyLog(const ReadOnlyFile& file, const std::string& name, VerifyReport* report) {
  const LogHeaderView view = ReadLogHeader(file);
  if (!VerifyHeader(file, view, name, report)) return;

  uint64_t unflushed = 0;
  uint64_t firstUnflushed = 0;
  const LogScan scan = ScanLog(file, view.header.used, [&](const LogRecordView& record) {
    VerifyRecord(record, name, report);
    if (record.key.front() == kUnflushedFirstByte && unflushed++ == 0) firstUnflushed = record.offset;
    return true;
  });
  report->logRecords += scan.records;
  if (view.header.used <= file.Size()) VerifyEnd(scan, view.header.used, name, report);
  if (unflushed != 0) {
    report->Note(name, firstUnflushed,
                 std::to_string(unflushed) +
                     (unflushed == 1 ? " record has a key that begins" : " records have keys that begin") +
                     " with the byte 0xFF, which the next flush drops");
  }
}

}  // namespace Kestrun::Inspect
