#include "block/log_cursor.h"

#include <algorithm>
#include <cstring>

#include "base/key_bytes.h"
#include "format/checksum.h"
#include "format/scan_range.h"
#include "format/wal_reader.h"
#include "kestrun/key.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr uint64_t kMaxPrefetched = 256;

// The checksum of key and value that a record carries.
std::optional<uint32_t> MarkedChecksum(const uint8_t* bytes) {
  if (bytes == nullptr) return std::nullopt;
  WalRecord record;
  std::memcpy(&record, bytes, sizeof(record));
  const bool sound = StoreChecksum(&record, WalRecordOffset::kChecksum) == record.checksum;
  return sound && IsMarked(record) ? std::optional<uint32_t>(record.crc) : std::nullopt;
}

}  // namespace

// Catching up may begin a new index.
uint32_t LogCursor::Start() {
  IgnoreStatus(wal_.CatchUp());  // with a damaged header the log is what was read before
  position_ = LogIndex::Iterator(wal_.Index());
  position_.Seek(BytesOf(Kestrun::Key::MinKey()));
  started_ = false;
  return kStatusOk;
}

uint32_t LogCursor::Next(bool* end) {
  if (started_) position_.Next();
  started_ = true;
  *end = !position_.Valid() || !InScanRange(position_.Key());
  if (*end) return kStatusOk;
  const LogIndex::Version version = position_.Get();
  // Records lie in the order in which they were written: the processor can't foresee which one is next.
  if (const uint32_t next = position_.FollowingOffset(); next != 0) {
    if (const uint8_t* record = View(next, sizeof(WalRecord)); record != nullptr) {
      __builtin_prefetch(record);
      __builtin_prefetch(record + sizeof(WalRecord) - 1);
    }
  }
  key_ = position_.Key();
  entry_ = version.entry;
  if (View(entry_.valueOffset, entry_.valueSize) == nullptr) return kStatusBlockWriteFailed;
  checksum_ = MarkedChecksum(View(version.offset, sizeof(WalRecord)));
  return kStatusOk;
}

// Next has looked.
bool LogCursor::HoldsValue(uint32_t /*source*/, uint64_t /*offset*/, uint64_t /*size*/) {
  return true;
}

bool LogCursor::CopyValues(uint32_t /*source*/, uint64_t offset, uint64_t size, BufferedWriter& out) {
  const uint8_t* bytes = View(offset, size);
  return bytes != nullptr && out.Append(bytes, static_cast<size_t>(size));
}

void LogCursor::Prefetch(uint32_t /*source*/, uint64_t offset, uint64_t size) {
  const uint8_t* bytes = View(offset, size);
  if (bytes == nullptr || size == 0) return;
  for (uint64_t line = 0; line < std::min<uint64_t>(size, kMaxPrefetched); line += 64) {
    __builtin_prefetch(bytes + line);
  }
}

const uint8_t* LogCursor::View(uint64_t offset, uint64_t size) {
  DataEntry place = {};
  place.valueOffset = static_cast<uint32_t>(offset);
  place.valueSize = static_cast<uint32_t>(size);
  return wal_.ViewValue(place);
}

}  // namespace Kestrun
