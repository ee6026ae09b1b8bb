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

Block::Block(std::shared_ptr<OsFile> file, std::shared_ptr<const BlockTable> table)
    : file_(std::move(file)), table_(std::move(table)) {}

uint32_t Block::Load(const std::string& path, Block** out, uint64_t pageSize) {
  return Load(path, BlockLoading(), out, pageSize);
}

uint32_t Block::Load(const std::string& path, const BlockLoading& loading, Block** out, uint64_t pageSize,
                     std::shared_ptr<const BlockFilter>* filter) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadOnly, &file); status != kStatusOk) return status;
  OsFileSource source(*file);
  if (pageSize == kAnyPageSize) {
    if (const uint32_t status = DetectBlockPageSize(source, &pageSize); status != kStatusOk) return status;
  }
  if (pageSize == 0) pageSize = PageSize();
  if (filter != nullptr) filter->reset();

  uint32_t status = kStatusOk;
  if (loading.maxIndexed != UINT32_MAX) {
    std::shared_ptr<const BlockTable> table;
    status = BlockTable::Open(file, pageSize, &table);
    if (status != kStatusOk) return status;
    if (table->Count() > loading.maxIndexed) {
      if (loading.learns) status = BlockTable::Learn(file, pageSize, &table, filter);
      if (status == kStatusOk) *out = new Block(std::move(file), std::move(table));
      if (status != kStatusInvalid) return status;
    }
  }
  std::shared_ptr<const BlockIndex> index;
  status = BlockIndex::Read(source, pageSize, &index);
  if (status != kStatusOk) return status;
  if (filter != nullptr) *filter = std::make_shared<BlockFilter>(*index);
  *out = new Block(std::move(file), std::move(index));
  return kStatusOk;
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
