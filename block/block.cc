#include "block/block.h"

#include <cstdlib>
#include <utility>

#include "base/clock.h"
#include "base/key_bytes.h"
#include "base/page_size.h"
#include "format/block_reader.h"
#include "kestrun/status.h"
#include "storage/os_file_source.h"

namespace Kestrun {
namespace {

constexpr size_t kVerifyWindow = 256 * 1024;

constexpr uint32_t kMaxUncheckedValue = 64 * 1024;

}  // namespace

Block::Block(std::shared_ptr<OsFile> file, std::shared_ptr<const BlockIndex> index)
    : file_(std::move(file)), index_(std::move(index)) {}

uint32_t Block::Load(const std::string& path, Block** out, uint64_t pageSize) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadOnly, &file); status != kStatusOk) return status;
  OsFileSource source(*file);
  if (pageSize == kAnyPageSize) {
    if (const uint32_t status = DetectBlockPageSize(source, &pageSize); status != kStatusOk) return status;
  }
  std::shared_ptr<const BlockIndex> index;
  const uint32_t status = BlockIndex::Read(source, pageSize == 0 ? PageSize() : pageSize, &index);
  if (status == kStatusOk) *out = new Block(std::move(file), std::move(index));
  return status;
}

uint32_t Block::Verify(const std::string& path) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadOnly, &file); status != kStatusOk) return status;
  OsFileSource source(*file);
  BlockReader reader(source, PageSize(), kVerifyWindow);
  uint32_t status = reader.Start();
  for (bool end = false; status == kStatusOk && !end;) status = reader.Next(&end);
  return status;
}

bool Block::ChecksumAt(uint32_t index, uint32_t* checksum) const {
  const BlockIndex::Record& record = index_->RecordAt(index);
  if (record.hasChecksum) *checksum = record.checksum;
  return record.hasChecksum;
}

bool Block::Contains(const Key& key) const {
  return Find(BytesOf(key)) != Count();
}

uint32_t Block::Lookup(const Key& key, DataEntry* entry) const {
  const uint32_t found = Find(BytesOf(key));
  if (found == Count()) return kStatusInvalid;
  *entry = EntryAt(found);
  return kStatusOk;
}

bool Block::MayHoldValue(const DataEntry& entry) const {
  uint64_t size = 0;
  return entry.valueSize <= kMaxUncheckedValue || file_->Size(&size) != 0 ||
         uint64_t{entry.valueOffset} + entry.valueSize <= size;
}

// Looks at the time to live before anything else: an expired tombstone has expired, too.
uint32_t Block::ReadValue(const DataEntry& entry, void** value, const Diagnostics& diagnostics) const {
  if (!IsAlive(entry.timestamp, entry.ttl, NowSeconds())) {
    diagnostics.Print("TTL verification failed");
    return kStatusInvalid;
  }
  if (entry.deleted || entry.valueSize == 0) {
    *value = nullptr;
    return kStatusOk;
  }
  if (!MayHoldValue(entry)) return kStatusBlockShortRead;
  std::unique_ptr<void, decltype(&std::free)> buffer(std::malloc(entry.valueSize), &std::free);
  if (buffer == nullptr) return kStatusNoMemory;
  const ssize_t read = file_->PReadFully(buffer.get(), entry.valueSize, entry.valueOffset);
  if (read != static_cast<ssize_t>(entry.valueSize)) return kStatusBlockShortRead;
  *value = buffer.release();
  return kStatusOk;
}

// Where a damaged file is out of order, every entry is looked at until one is not before `to`.
void Block::ForEachInRange(const Key& from, const Key& to,
                           const std::function<bool(const Key&)>& visit) const {
  const std::string_view first = BytesOf(from);
  const std::string_view end = BytesOf(to);
  for (uint32_t i = index_->IsOrdered() ? LowerBound(first) : 0; i < Count() && KeyAt(i) < end; ++i) {
    if (KeyAt(i) < first) continue;
    if (!visit) std::abort();
    if (visit(ToKey(KeyAt(i)))) return;
  }
}

}  // namespace Kestrun
