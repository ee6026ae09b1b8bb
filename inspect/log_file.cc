#include "inspect/log_file.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/file_magic.h"

namespace Kestrun::Inspect {

LogHeaderView ReadLogHeader(const ReadOnlyFile& file) {
  LogHeaderView view;
  uint8_t bytes[sizeof(WalHeader)];
  if (!file.ReadAt(0, bytes, sizeof(bytes))) return view;
  std::memcpy(&view.header, bytes, sizeof(bytes));
  view.complete = true;
  view.checksumMatches = view.header.checksum == StoreChecksum(bytes, WalHeaderOffset::kChecksum);
  view.magicMatches = std::memcmp(bytes, kFileMagic, kMagicSize) == 0;
  return view;
}

LogScan ScanLog(const ReadOnlyFile& file, uint64_t used,
                const std::function<bool(const LogRecordView&)>& visit) {
  LogScan scan;
  FileWindow window(file);
  LogRecordView record;
  const uint64_t limit = std::min(used, file.Size());
  const auto endWith = [&scan](LogEnd end) {
    scan.end = end;
    return scan;
  };

  while (scan.endOffset + sizeof(WalRecord) < limit) {
    record.offset = scan.endOffset;
    uint8_t bytes[sizeof(WalRecord)];
    if (!window.ReadAt(record.offset, bytes, sizeof(bytes))) return endWith(LogEnd::Unreadable);
    std::memcpy(&record.header, bytes, sizeof(bytes));
    if (record.header.checksum != StoreChecksum(bytes, WalRecordOffset::kChecksum)) {
      return endWith(LogEnd::BadChecksum);
    }
    if (record.header.keySize == 0) return endWith(LogEnd::EmptyKey);

    record.valueOffset = record.offset + sizeof(WalRecord) + record.header.keySize;
    record.end = record.valueOffset + record.header.valueSize;
    if (record.end > file.Size()) return endWith(LogEnd::OutOfBounds);
    record.key.resize(record.header.keySize);
    if (!window.ReadAt(record.offset + sizeof(WalRecord), record.key.data(), record.key.size())) {
      return endWith(LogEnd::Unreadable);
    }

    ++scan.records;
    scan.endOffset = record.end;
    if (!visit(record)) return endWith(LogEnd::Stopped);
  }
  return scan;
}

}  // namespace Kestrun::Inspect
