#include "block/block_index.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/key_bytes.h"
#include "format/block_reader.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

// Large enough to make few calls, small enough to stay in the cache until its entries are checked.
constexpr size_t kReadSize = 5376 * sizeof(BlockDataEntry);  // 252 KiB

BlockIndex::Record ToRecord(const BlockDataEntry& entry) {
  const bool marked = entry.mark == kChecksummedMark;
  return {entry.valueOffset, entry.valueSize, entry.timestamp,    entry.ttl, marked ? entry.crc : 0,
          entry.keyOffset,   entry.keySize,   entry.deleted != 0, marked};
}

}  // namespace

uint32_t BlockIndex::Read(ByteSource& source, uint64_t pageSize, std::shared_ptr<const BlockIndex>* out) {
  const auto index = std::make_shared<BlockIndex>();
  BlockSections sections;
  uint32_t status = ReadBlockSections(source, pageSize, &sections);
  if (status == kStatusOk) status = index->ReadEntries(source, sections, 0, sections.entryCount);
  if (status != kStatusOk) return status;
  index->Finish();
  *out = index;
  return kStatusOk;
}

uint32_t BlockIndex::ReadPart(ByteSource& source, const BlockSections& sections, uint32_t first,
                              uint32_t count) {
  records_.Truncate(0);
  keys_.Truncate(0);
  const uint32_t status = ReadEntries(source, sections, first, count);
  if (status != kStatusOk) records_.Truncate(0);
  FindOrder();
  return status;
}

// The count is believed only once the first entries prove sound: a damaged header may claim millions.
uint32_t BlockIndex::ReadEntries(ByteSource& source, const BlockSections& sections, uint64_t first,
                                 uint64_t count) {
  const uint64_t start = sections.FirstEntry() + first * sizeof(BlockDataEntry);
  const uint64_t size = count * sizeof(BlockDataEntry);
  std::vector<uint8_t> buffer(static_cast<size_t>(std::min<uint64_t>(size, kReadSize)));
  if (size <= kReadSize) records_.Reserve(static_cast<size_t>(count));
  for (uint64_t done = 0; done < size;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(size - done, kReadSize));
    const ssize_t read = source.ReadAt(start + done, buffer.data(), wanted);
    if (read < 0) return kStatusBlockShortRead;
    for (size_t at = 0; at < wanted; at += sizeof(BlockDataEntry)) {
      const size_t held = static_cast<size_t>(read) > at ? static_cast<size_t>(read) - at : 0;
      BlockDataEntry entry;
      if (!DecodeBlockEntry(buffer.data() + at, held, sections.keyTableSize, &entry))
        return kStatusBlockCorrupt;
      *records_.Extend(1) = ToRecord(entry);
    }
    if (done == 0) records_.Reserve(static_cast<size_t>(count));
    done += wanted;
  }
  return ReadKeys(source, sections.keyTableOffset);
}

// The keys of a sound file lie one after the other and are read at once. Where entries say otherwise, each
// key is read by itself: an entry may point anywhere in a table that claims 4 GiB.
uint32_t BlockIndex::ReadKeys(ByteSource& source, uint64_t keyTableOffset) {
  uint64_t begin = UINT64_MAX;
  uint64_t end = 0;
  uint64_t total = 0;
  for (uint32_t i = 0; i < Count(); ++i) {
    const Record& record = records_[i];
    if (record.keySize == 0) continue;
    begin = std::min<uint64_t>(begin, record.keyOffset);
    end = std::max(end, uint64_t{record.keyOffset} + record.keySize);
    total += record.keySize;
  }
  const auto read = [&](uint64_t offset, char* to, size_t size) {
    const ssize_t count = source.ReadAt(keyTableOffset + offset, to, size);
    if (count < 0) return kStatusBlockShortRead;
    return static_cast<size_t>(count) == size ? kStatusOk : kStatusBlockCorrupt;
  };
  if (total != 0 && end - begin <= total) {
    const auto size = static_cast<size_t>(end - begin);
    if (const uint32_t status = read(begin, keys_.Extend(size), size); status != kStatusOk) return status;
    for (uint32_t i = 0; i < Count(); ++i) {
      Record& record = records_[i];
      record.keyOffset = record.keySize == 0 ? 0 : record.keyOffset - static_cast<uint32_t>(begin);
    }
    return kStatusOk;
  }
  for (uint32_t i = 0; i < Count(); ++i) {
    Record& record = records_[i];
    const size_t at = keys_.Size();
    if (at + record.keySize > UINT32_MAX) return kStatusBlockCorrupt;
    char* const to = keys_.Extend(record.keySize);
    if (const uint32_t status = read(record.keyOffset, to, record.keySize); status != kStatusOk)
      return status;
    record.keyOffset = static_cast<uint32_t>(at);
  }
  return kStatusOk;
}

void BlockIndex::Reserve(size_t count, size_t keyBytes) {
  records_.Reserve(count);
  keys_.Reserve(keyBytes);
}

void BlockIndex::Append(std::string_view key, const DataEntry& entry, std::optional<uint32_t> checksum) {
  const auto keyOffset = static_cast<uint32_t>(keys_.Size());
  if (!key.empty()) std::memcpy(keys_.Extend(key.size()), key.data(), key.size());
  *records_.Extend(1) = {entry.valueOffset,
                         entry.valueSize,
                         entry.timestamp,
                         entry.ttl,
                         checksum.value_or(0),
                         keyOffset,
                         static_cast<uint16_t>(key.size()),
                         entry.deleted,
                         checksum.has_value()};
}

void BlockIndex::Move(uint32_t from, uint32_t to) {
  if (from == to) return;
  const uint32_t keyOffset = to == 0 ? 0 : records_[to - 1].keyOffset + records_[to - 1].keySize;
  Record record = records_[from];
  if (record.keySize != 0) {
    std::memmove(keys_.Data() + keyOffset, keys_.Data() + record.keyOffset, record.keySize);
  }
  record.keyOffset = keyOffset;
  records_[to] = record;
}

void BlockIndex::Truncate(uint32_t count) {
  if (count == Count()) return;
  keys_.Truncate(count == 0 ? 0 : records_[count - 1].keyOffset + records_[count - 1].keySize);
  records_.Truncate(count);
}

void BlockIndex::Finish() {
  records_.Trim();
  keys_.Trim();
  prefixes_ = HeapArray<uint64_t>();
  FindOrder();
}

void BlockIndex::FindOrder() {
  const uint32_t count = Count();
  prefixes_.Truncate(0);
  if (count != 0) prefixes_.Extend(count);
  common_ = 0;
  ordered_ = true;
  if (count == 0 || BuildPrefixes(CommonPrefixSize(KeyAt(0), KeyAt(count - 1)))) return;
  ordered_ = false;
  for (uint32_t i = 0; i < count; ++i) prefixes_[i] = PrefixOf(KeyAt(i));
}

// False, with nothing that counts done, when the keys are not in order.
bool BlockIndex::BuildPrefixes(size_t common) {
  const std::string_view shared = KeyAt(0).substr(0, common);
  std::string_view previous;
  for (uint32_t i = 0; i < Count(); ++i) {
    const std::string_view key = KeyAt(i);
    if (key.substr(0, common) != shared) return false;
    const std::string_view rest = key.substr(common);
    prefixes_[i] = PrefixOf(rest);
    if (i != 0 &&
        (prefixes_[i] < prefixes_[i - 1] || (prefixes_[i] == prefixes_[i - 1] && rest <= previous))) {
      return false;
    }
    previous = rest;
  }
  common_ = common;
  return true;
}

DataEntry BlockIndex::EntryAt(uint32_t index) const {
  return ToDataEntry(records_[index]);
}

int BlockIndex::Compare(uint32_t index, uint64_t prefix, std::string_view key) const {
  if (prefixes_[index] != prefix) return prefixes_[index] < prefix ? -1 : 1;
  return KeyAt(index).compare(key);
}

// Where `key` lies when it does not begin as all keys do: before them (1), after them (-1); 0 when it does.
int BlockIndex::CompareCommon(std::string_view key) const {
  return KeyAt(0).substr(0, common_).compare(key.substr(0, common_));
}

uint32_t BlockIndex::LowerBound(std::string_view key) const {
  const uint32_t count = Count();
  if (count == 0) return 0;
  if (const int order = CompareCommon(key); order != 0) return order > 0 ? 0 : count;
  const uint64_t prefix = PrefixOf(key.substr(common_));
  uint32_t first = LowerBoundOfPrefix(prefix);
  if (first == count || prefixes_[first] != prefix || KeyAt(first) >= key) return first;
  for (uint32_t left = UpperBoundOfPrefix(prefix) - first; left > 0;) {
    const uint32_t half = left / 2;
    if (KeyAt(first + half) < key) {
      first += half + 1;
      left -= half + 1;
    } else {
      left = half;
    }
  }
  return first;
}

// Without a branch that depends on what is compared: the processor can't foresee it.
uint32_t BlockIndex::LowerBoundOfPrefix(uint64_t prefix) const {
  const uint64_t* base = prefixes_.Data();
  for (uint32_t left = Count(); left > 1;) {
    const uint32_t half = left / 2;
    left -= half;
    // Where the next step looks, whichever way this one goes.
    __builtin_prefetch(base + left / 2);
    __builtin_prefetch(base + half + left / 2);
    base += base[half - 1] < prefix ? half : 0;
  }
  return static_cast<uint32_t>(base - prefixes_.Data()) + (*base < prefix ? 1 : 0);
}

uint32_t BlockIndex::UpperBoundOfPrefix(uint64_t prefix) const {
  return prefix == UINT64_MAX ? Count() : LowerBoundOfPrefix(prefix + 1);
}

uint32_t BlockIndex::Find(std::string_view key) const {
  const uint32_t count = Count();
  if (!ordered_) return FindUnordered(key);
  const uint32_t found = LowerBound(key);
  return found != count && KeyAt(found) == key ? found : count;
}

// What is found in a damaged file that is out of order is decided by this
// bisection. Compat: unordered-block-search
uint32_t BlockIndex::FindUnordered(std::string_view key) const {
  const uint32_t count = Count();
  const uint64_t prefix = PrefixOf(key);
  if (Compare(0, prefix, key) > 0 || Compare(count - 1, prefix, key) < 0) return count;
  for (int64_t low = 0, high = int64_t{count} - 1; low <= high;) {
    const int64_t middle = (low + high) / 2;
    const int order = Compare(static_cast<uint32_t>(middle), prefix, key);
    if (order == 0) return static_cast<uint32_t>(middle);
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return count;
}

size_t BlockIndex::MemoryUsed() const {
  return sizeof(*this) + records_.Size() * (sizeof(Record) + sizeof(uint64_t)) + keys_.Size();
}

}  // namespace Kestrun
