#include "block/block_table.h"

#include <algorithm>
#include <utility>

#include "base/key_bytes.h"
#include "format/block_reader.h"
#include "kestrun/status.h"
#include "storage/os_file_source.h"

namespace Kestrun {
namespace {

constexpr size_t kLearnWindow = 256 * 1024;

}  // namespace

BlockTable::BlockTable(std::shared_ptr<OsFile> file, const BlockSections& sections)
    : file_(std::move(file)), sections_(sections) {}

uint32_t BlockTable::Open(std::shared_ptr<OsFile> file, uint64_t pageSize,
                          std::shared_ptr<const BlockTable>* out) {
  OsFileSource source(*file);
  BlockSections sections;
  const uint32_t status = ReadBlockSections(source, pageSize, &sections);
  if (status == kStatusOk) out->reset(new BlockTable(std::move(file), sections));
  return status;
}

uint32_t BlockTable::Learn(std::shared_ptr<OsFile> file, uint64_t pageSize,
                           std::shared_ptr<const BlockTable>* out,
                           std::shared_ptr<const BlockFilter>* filter) {
  OsFileSource source(*file);
  BlockSections sections;
  if (const uint32_t status = ReadBlockSections(source, pageSize, &sections); status != kStatusOk)
    return status;
  const std::shared_ptr<BlockTable> table(new BlockTable(std::move(file), sections));
  std::shared_ptr<BlockFilter> keys;
  if (filter != nullptr) keys = std::make_shared<BlockFilter>(table->Count());
  if (const uint32_t status = table->WalkAll(pageSize, keys.get()); status != kStatusOk) return status;
  *out = table;
  if (filter != nullptr) *filter = std::move(keys);
  return kStatusOk;
}

uint32_t BlockTable::WalkAll(uint64_t pageSize, BlockFilter* filter) {
  OsFileSource source(*file_);
  BlockReader reader(source, pageSize, kLearnWindow);
  uint32_t status = reader.Start();
  if (Count() != 0) {
    BlockIndex ends;
    if (status == kStatusOk) status = ends.ReadPart(source, sections_, 0, 1);
    if (status == kStatusOk) common_ = ends.KeyAt(0);
    if (status == kStatusOk) status = ends.ReadPart(source, sections_, Count() - 1, 1);
    if (status == kStatusOk) common_.resize(CommonPrefixSize(common_, ends.KeyAt(0)));
  }
  groups_.Reserve(size_t{Count()} / kGroup + 1);
  std::string previous;
  for (uint32_t i = 0; status == kStatusOk; ++i) {
    bool end = false;
    status = reader.Next(&end);
    if (status != kStatusOk || end) break;
    const std::string_view key = reader.Key();
    const bool isInOrder = (i == 0 || key > previous) && key.compare(0, common_.size(), common_) == 0;
    if (!isInOrder) return kStatusInvalid;
    if (i % kGroup == 0) *groups_.Extend(1) = PrefixOf(key.substr(common_.size()));
    if (filter != nullptr) filter->Add(key);
    previous.assign(key);
  }
  isLearned_ = true;
  return status;
}

uint32_t BlockTable::ReadPage(uint32_t first, uint32_t count, BlockIndex* page) const {
  OsFileSource source(*file_);
  const uint32_t status = page->ReadPart(source, sections_, first, count);
  if (status != kStatusOk) return status;
  return page->IsOrdered() ? kStatusOk : kStatusBlockCorrupt;
}

// The place lies in [*first, *end]: not before the last group that begins before `key`, and not after the
// first one that does not.
void BlockTable::NarrowByGroups(std::string_view key, uint32_t* first, uint32_t* end) const {
  const int order = common_.compare(key.substr(0, common_.size()));
  if (order != 0) {
    *first = *end = order > 0 ? 0 : Count();
    return;
  }
  const uint64_t prefix = PrefixOf(key.substr(common_.size()));
  const uint64_t* const begin = groups_.Data();
  const uint64_t* const last = begin + groups_.Size();
  const uint64_t* const low = std::lower_bound(begin, last, prefix);
  const uint64_t* const high = std::upper_bound(low, last, prefix);
  *first = low == begin ? 0 : static_cast<uint32_t>(low - begin - 1) * kGroup;
  *end = std::min(static_cast<uint32_t>(high - begin) * kGroup, Count());
}

uint32_t BlockTable::ReadAround(std::string_view key, BlockIndex* page, uint32_t* first) const {
  uint32_t begin = 0;
  uint32_t end = Count();
  if (isLearned_ && Count() != 0) NarrowByGroups(key, &begin, &end);
  while (end - begin > kGroup) {
    const uint32_t middle = begin + (end - begin) / 2;
    if (const uint32_t status = ReadPage(middle, 1, page); status != kStatusOk) return status;
    if (page->KeyAt(0) < key) {
      begin = middle + 1;
    } else {
      end = middle;
    }
  }
  *first = begin;
  // One more, so that a key that was compared last is there.
  return ReadPage(begin, std::min(end + 1, Count()) - begin, page);
}

uint32_t BlockTable::LowerBound(std::string_view key, uint32_t* position) const {
  BlockIndex page;
  uint32_t first = 0;
  const uint32_t status = ReadAround(key, &page, &first);
  if (status == kStatusOk) *position = first + page.LowerBound(key);
  return status;
}

uint32_t BlockTable::Find(std::string_view key, std::optional<BlockIndex::Record>* record) const {
  BlockIndex page;
  uint32_t first = 0;
  const uint32_t status = ReadAround(key, &page, &first);
  if (status != kStatusOk) return status;
  record->reset();
  if (const uint32_t found = page.Find(key); found != page.Count()) *record = page.RecordAt(found);
  return kStatusOk;
}

}  // namespace Kestrun
