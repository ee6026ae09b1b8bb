#include "block/stream_block.h"

#include "base/page_size.h"
#include "block/block_writer.h"
#include "block/buffered_writer.h"
#include "block/section_writer.h"
#include "format/block_format.h"
#include "kestrun/status.h"
#include "storage/directory.h"

namespace Kestrun {
namespace {

// Values that lie side by side are copied together, up to this many bytes at a time.
constexpr uint64_t kMaxStreamedRun = 1024 * 1024;

bool IsSet(const std::atomic<bool>* stop) {
  return stop != nullptr && stop->load(std::memory_order_relaxed);
}

// The sizes of the sections, their headers included.
struct Sizes {
  uint64_t data = sizeof(SectionHeader);
  uint64_t keys = sizeof(SectionHeader);
  uint64_t entries = sizeof(SectionHeader);
};

uint32_t Measure(EntryCursor& cursor, const std::atomic<bool>* stop, Sizes* sizes, BlockLayout* layout) {
  if (const uint32_t status = cursor.Start(); status != kStatusOk) return status;
  for (bool end = false;;) {
    if (const uint32_t status = cursor.Next(&end); status != kStatusOk) return status;
    if (end) break;
    if (IsSet(stop)) return kStatusBlockWriteFailed;
    sizes->data += cursor.Entry().valueSize;
    sizes->keys += cursor.Key().size();
    sizes->entries += sizeof(BlockDataEntry);
  }
  *layout = LayOutBlock(sizes->data, sizes->keys, sizes->entries, PageSize());
  return layout->fileSize < kBlockSizeLimit ? kStatusOk : kStatusBlockWriteFailed;
}

// The three sections, each of which is written forward.
class Sections {
 public:
  Sections(const std::shared_ptr<OsFile>& file, EntryCursor& cursor, const std::atomic<bool>* stop)
      : cursor_(cursor), stop_(stop), values_(file), keys_(file), entries_(file) {}

  uint32_t Write(const Sizes& sizes, const BlockLayout& layout) {
    const bool hasHeaders =
        WriteFileHeader(values_) &&
        WriteSectionHeader(values_, SectionType::Data, kDataSectionName, sizes.data) &&
        keys_.MoveTo(layout.keyTableOffset) &&
        WriteSectionHeader(keys_, SectionType::KeyTable, kKeyTableName, sizes.keys) &&
        entries_.MoveTo(layout.entryTableOffset) &&
        WriteSectionHeader(entries_, SectionType::EntryTable, kEntryTableName, sizes.entries);
    if (!hasHeaders) return kStatusBlockWriteFailed;
    if (const uint32_t status = cursor_.Start(); status != kStatusOk) return status;
    for (bool end = false;;) {
      if (const uint32_t status = cursor_.Next(&end); status != kStatusOk) return status;
      if (end) break;
      if (const uint32_t status = AppendEntry(); status != kStatusOk) return status;
    }
    // Tables of other sizes than their headers say would make a file that can't be read.
    const bool isWhole = CopyRun() && position_ == kDataSectionOffset + sizes.data &&
                         keyOffset_ == sizes.keys &&
                         entries_.Position() == layout.entryTableOffset + sizes.entries;
    return isWhole && values_.Flush() && keys_.Flush() && entries_.Flush() ? kStatusOk
                                                                           : kStatusBlockWriteFailed;
  }

 private:
  uint32_t AppendEntry() {
    const DataEntry& entry = cursor_.Entry();
    if (!cursor_.HoldsValue(cursor_.Source(), entry.valueOffset, entry.valueSize)) return kStatusBlockCorrupt;
    if (entry.valueSize != 0 && !AppendValue(entry)) return kStatusBlockWriteFailed;
    const std::string_view key = cursor_.Key();
    const BlockIndex::Record record = {static_cast<uint32_t>(position_),
                                       entry.valueSize,
                                       entry.timestamp,
                                       entry.ttl,
                                       cursor_.Checksum().value_or(0),
                                       0,
                                       static_cast<uint16_t>(key.size()),
                                       entry.deleted,
                                       cursor_.Checksum().has_value()};
    const BlockDataEntry written = ToBlockDataEntry(record, static_cast<uint32_t>(keyOffset_));
    position_ += entry.valueSize;
    keyOffset_ += key.size();
    return keys_.Append(key.data(), key.size()) && entries_.Append(&written, sizeof(written))
               ? kStatusOk
               : kStatusBlockWriteFailed;
  }

  bool AppendValue(const DataEntry& entry) {
    const bool goesOn = cursor_.Source() == runSource_ && entry.valueOffset == runOffset_ + runSize_ &&
                        runSize_ < kMaxStreamedRun;
    if (!goesOn) {
      if (!CopyRun() || IsSet(stop_)) return false;
      runSource_ = cursor_.Source();
      runOffset_ = entry.valueOffset;
    }
    runSize_ += entry.valueSize;
    return true;
  }

  bool CopyRun() {
    const uint64_t size = runSize_;
    runSize_ = 0;
    return size == 0 || cursor_.CopyValues(runSource_, runOffset_, size, values_);
  }

  EntryCursor& cursor_;
  const std::atomic<bool>* stop_;
  BufferedWriter values_;
  BufferedWriter keys_;
  BufferedWriter entries_;
  uint64_t position_ = kDataSectionOffset + sizeof(SectionHeader);  // of the next value in the file
  uint64_t keyOffset_ = sizeof(SectionHeader);                      // of the next key in its table
  // Values that lie side by side in one source and are still to be copied.
  uint32_t runSource_ = 0;
  uint64_t runOffset_ = 0;
  uint64_t runSize_ = 0;
};

}  // namespace

uint32_t StreamBlock(const std::string& path, EntryCursor& cursor, const std::atomic<bool>* stop,
                     std::shared_ptr<OsFile>* file) {
  Sizes sizes;
  BlockLayout layout = {};
  if (const uint32_t status = Measure(cursor, stop, &sizes, &layout); status != kStatusOk) return status;
  if (const uint32_t status = OsFile::Open(path, kOpenReadWrite, file); status != kStatusOk) return status;
  Sections sections(*file, cursor, stop);
  if (const uint32_t status = sections.Write(sizes, layout); status != kStatusOk) return status;
  const bool isSynced = (*file)->Sync() == 0 && SyncDirectory(DirectoryOf((*file)->Path()));
  return isSynced ? kStatusOk : kStatusSyncFailed;
}

}  // namespace Kestrun
