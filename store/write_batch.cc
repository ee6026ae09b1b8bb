#include "kestrun/write_batch.h"

#include "base/catch_bad_alloc.h"
#include "format/wal_format.h"
#include "kestrun/status.h"
#include "store/key_rules.h"

namespace Kestrun {

WriteBatch::WriteBatch() = default;

uint32_t WriteBatch::Put(std::string_view key, std::string_view value, unsigned int ttl) {
  if (!IsValidKey(key) || !IsValidValue(value) || ttl == 0) return kStatusInvalid;
  return Add(key, value, ttl, false);
}

uint32_t WriteBatch::Delete(std::string_view key) {
  if (!IsValidKey(key)) return kStatusInvalid;
  return Add(key, {}, 0, true);
}

// Room first: after it nothing can fail.
uint32_t WriteBatch::Add(std::string_view key, std::string_view value, unsigned int ttl, bool deleted) {
  WalRecord record = {};
  record.valueSize = static_cast<uint32_t>(value.size());
  record.deleted = deleted ? 1 : 0;
  record.ttl = ttl;
  record.keySize = static_cast<uint16_t>(key.size());
  const size_t needed = records_.size() + sizeof(record) + key.size() + value.size();
  const uint32_t status = CatchBadAlloc([&] {
    if (needed > records_.capacity())
      records_.reserve(needed < records_.size() * 2 ? records_.size() * 2 : needed);
    return kStatusOk;
  });
  if (status != kStatusOk) return status;
  records_.append(reinterpret_cast<const char*>(&record), sizeof(record)).append(key).append(value);
  ++count_;
  return kStatusOk;
}

void WriteBatch::Clear() {
  records_.clear();
  count_ = 0;
}

size_t WriteBatch::Count() const {
  return count_;
}

size_t WriteBatch::ByteSize() const {
  return records_.size();
}

}  // namespace Kestrun
