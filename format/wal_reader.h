// format/wal_reader.h: the one reader of the write-ahead log, wal_v5 (format/wal_format.h).
//
// Ownership: a reader borrows its source, which must outlive it.
// Threads:   one at a time for each reader; the functions may run at any time.
// Failure:   what can't be right ends a walk; End and Offset say why and where. May throw std::bad_alloc.
// Units:     offsets are bytes from the start of the file, times are seconds since the Unix epoch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "format/byte_source.h"
#include "format/byte_window.h"
#include "format/file_header.h"
#include "format/to_data_entry.h"
#include "format/wal_format.h"

namespace Kestrun {

using WalHeaderView = FileHeaderView<WalHeader>;
WalHeaderView ReadWalHeader(ByteSource& source);

// The log is walked from its first record on, and a walk ends where a replay of the log does.
enum class WalEnd {
  Complete,     // the next record would begin where the used area ends, or so near that none fits
  BadChecksum,  // the record fails its checksum
  EmptyKey,     // the record has no key
  BeyondUsed,   // the record ends beyond the used area, and within the file
  BeyondFile,   // the record ends beyond the end of the file
  BadContent,   // the record is marked, and its key and value are not those that were written
  OtherEpoch,   // the record is marked, and belongs to another filling of the log
  Unreadable,   // the system can't read it
};

// A record's header, looked at by itself: 40 bytes at `offset` of a log of `fileSize` bytes whose used area
// ends at `used`. Complete means that it is one; `bytes` is not read where no record fits any more.
WalEnd CheckWalRecord(const uint8_t* bytes, uint64_t offset, uint64_t used, uint64_t fileSize,
                      WalRecord* record);
// Whether a record header fits before the end of what can be read.
inline bool WalRecordFits(uint64_t offset, uint64_t used, uint64_t fileSize) {
  return offset + sizeof(WalRecord) < (used < fileSize ? used : fileSize);
}

// A marked record carries the checksum of its content and the epoch of its filling.
inline bool IsMarked(const WalRecord& record) {
  return record.mark == kChecksummedMark;
}
uint32_t EpochOf(const WalRecord& record);

struct WalRecordView {
  WalRecord header = {};
  uint64_t offset = 0;       // of the record
  uint64_t valueOffset = 0;  // where the value lies; header.valueOffset should say the same
  uint64_t end = 0;          // of the record
  std::string key;
};

class WalReader {
 public:
  // Walks the records of a log of `fileSize` bytes whose used area ends at `used`. With `start`, from another
  // record on, which then sets the epoch.
  WalReader(ByteSource& source, uint64_t used, uint64_t fileSize, uint64_t start = kWalFirstRecord);

  // Goes to the next record; false at the end of the walk.
  bool Next();
  const WalRecordView& Record() const { return record_; }
  // The value of the record; false when it can't be read any more.
  bool ReadValue(std::string* value);

  // Why the walk ended, and where: after the last sound record.
  WalEnd End() const { return end_; }
  uint64_t Offset() const { return offset_; }
  // The end that the record at Offset tells, where its header could be read.
  uint64_t ToldEnd() const { return toldEnd_; }
  uint64_t Records() const { return records_; }

 private:
  WalEnd Examine();
  bool ContentMatches();

  ByteWindow window_;
  uint64_t used_;
  uint64_t fileSize_;
  uint64_t offset_;
  uint64_t toldEnd_ = 0;
  uint64_t records_ = 0;
  std::optional<uint32_t> epoch_;
  WalEnd end_ = WalEnd::Complete;
  WalRecordView record_;
};

// The offset of the first sound record after `start`: where what a broken record hides goes on, if it does.
// Only records are taken whose own place stands in their valueOffset, which bytes of a value are not likely
// to have. 0 when there is none.
uint64_t FindNextWalRecord(ByteSource& source, uint64_t used, uint64_t fileSize, uint64_t start);

}  // namespace Kestrun
