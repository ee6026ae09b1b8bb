#include "kestrun/snapshot.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "base/clock.h"
#include "format/crc32c.h"
#include "format/wal_reader.h"
#include "kestrun/status.h"
#include "store/cursor_impl.h"
#include "store/key_rules.h"
#include "store/snapshot_impl.h"

namespace Kestrun {

bool IsRecordContentSound(const uint8_t* record, std::string_view key, std::string_view value) {
  WalRecord header;
  std::memcpy(&header, record, sizeof(header));
  if (!IsMarked(header)) return true;
  return Crc32c(value.data(), value.size(), Crc32c(key.data(), key.size())) == header.crc;
}

Snapshot::Snapshot(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

Snapshot::~Snapshot() = default;

uint64_t Snapshot::Seconds() const {
  return impl_->seconds;
}

uint32_t Snapshot::Get(std::string_view key, std::optional<std::string>* value) const {
  if (value == nullptr || !IsValidKey(key)) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Get(key, value); });
}

uint32_t Snapshot::NewCursor(const Range& range, std::unique_ptr<Cursor>* out) const {
  if (out == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&]() -> uint32_t {
    out->reset(new Cursor(std::make_unique<Cursor::Impl>(impl_, range)));
    return kStatusOk;
  });
}

uint32_t Snapshot::Impl::ViewLogValue(std::string_view key, const LogIndex::Version& version,
                                      std::string_view* value) const {
  if (uint64_t{version.entry.valueOffset} + version.entry.valueSize > log.end) return kStatusBlockCorrupt;
  const uint8_t* bytes = log.copy->Bytes();
  const std::string_view found(reinterpret_cast<const char*>(bytes + version.entry.valueOffset),
                               version.entry.valueSize);
  if (!IsRecordContentSound(bytes + version.offset, key, found)) return kStatusBlockCorrupt;
  *value = found;
  return kStatusOk;
}

uint32_t Snapshot::Impl::Get(std::string_view key, std::optional<std::string>* value) const {
  LogIndex::Version version;
  if (log.copy != nullptr && log.filling->index.Find(key, log.end, &version)) {
    if (version.entry.deleted || !IsAlive(version.entry.timestamp, version.entry.ttl, seconds)) {
      value->reset();
      return kStatusOk;
    }
    std::string_view found;
    const uint32_t status = ViewLogValue(key, version, &found);
    if (status == kStatusOk) value->emplace(found);
    return status;
  }

  const Block* block = nullptr;
  std::optional<FoundEntry> found;
  if (const uint32_t status = FindInBlocks(*blocks, key, &block, &found); status != kStatusOk) return status;
  if (!found.has_value() || found->entry.deleted ||
      !IsAlive(found->entry.timestamp, found->entry.ttl, seconds)) {
    value->reset();
    return kStatusOk;
  }
  std::string bytes;
  const uint32_t status = ReadBlockValue(*block, *found, key, &bytes);
  if (status == kStatusOk) *value = std::move(bytes);
  return status;
}

}  // namespace Kestrun
