// How the manifest changes: recording a block, replacing blocks by one, dropping all.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/clock.h"
#include "format/checksum.h"
#include "kestrun/status.h"
#include "storage/manifest.h"
#include "storage/manifest_journal.h"
#include "storage/published_header.h"

namespace Kestrun {
namespace {

constexpr uint64_t kFirstEntry = sizeof(ManifestHeader);

std::shared_ptr<BlockEntry> MakeEntry(const std::string& name, const std::vector<uint8_t>& filter) {
  auto entry = std::make_shared<BlockEntry>();
  entry->name = name;
  entry->filter = filter;
  return entry;
}

uint64_t EntrySize(const BlockEntry& entry) {
  return sizeof(ManifestEntry) + entry.filter.size();
}

uint64_t EndOf(const ManifestList& list) {
  uint64_t end = kFirstEntry;
  for (const std::shared_ptr<BlockEntry>& entry : list.entries) end += EntrySize(*entry);
  return end;
}

bool Lists(const BlockEntries& entries, const std::string& name) {
  return std::any_of(entries.begin(), entries.end(),
                     [&name](const auto& entry) { return entry->name == name; });
}

bool ListsAll(const BlockEntries& entries, const BlockEntries& wanted) {
  return std::all_of(wanted.begin(), wanted.end(),
                     [&entries](const auto& entry) { return Lists(entries, entry->name); });
}

}  // namespace

std::vector<uint8_t> ManifestEntryBytes(const std::string& name, const std::vector<uint8_t>& filter) {
  ManifestEntry entry = {};
  std::memcpy(entry.name, name.data(), std::min(name.size(), kBlockNameLength));
  entry.createTime = NowSeconds();
  entry.modifyTime = NowSeconds();
  entry.filterSize = static_cast<uint32_t>(filter.size());
  entry.checksum = StoreChecksum(&entry, ManifestEntryOffset::kChecksum);

  std::vector<uint8_t> bytes(sizeof(entry) + filter.size());
  std::memcpy(bytes.data(), &entry, sizeof(entry));
  std::copy(filter.begin(), filter.end(), bytes.begin() + sizeof(entry));
  return bytes;
}

// Everything that can fail for want of memory comes first; then the entry's bytes; then the generation, so
// that whoever sees the new generation finds the entry complete; then both are forced to the disk.
uint32_t Manifest::Append(const std::string& name, const std::vector<uint8_t>& filter) {
  ManifestHeader header;
  ManifestListPointer list;
  if (const uint32_t status = PrepareChange(&header, &list); status != kStatusOk) return status;
  const std::vector<uint8_t> bytes = ManifestEntryBytes(name, filter);
  auto longer = std::make_shared<ManifestList>(*list);
  longer->generation = header.generation + 1;
  longer->entries.push_back(MakeEntry(name, filter));

  const auto end = static_cast<int64_t>(EndOf(*list));
  if (file_->PWriteFully(bytes.data(), bytes.size(), end) != static_cast<ssize_t>(bytes.size())) {
    IgnoreStatus(file_->Truncate(end));  // the next Append tries again
    diagnostics_.Print("Failed to write block entry");
    return kStatusManifestWriteFailed;
  }
  PublishGeneration(header, longer->generation);
  state_->SetList(std::move(longer));
  return file_->Sync() == 0 ? kStatusOk : kStatusSyncFailed;
}

// The side file is complete on the disk before the manifest is touched and stays until the manifest is. The
// new entries are written over the old ones, which takes no space that the file does not have, as a rule; a
// failure puts the old ones back.
uint32_t Manifest::Replace(const BlockEntries& replaced, const std::string& name,
                           const std::vector<uint8_t>& filter, bool* done) {
  *done = false;
  ManifestHeader header;
  ManifestListPointer list;
  if (const uint32_t status = PrepareChange(&header, &list); status != kStatusOk) return status;
  if (!ListsAll(list->entries, replaced)) return kStatusOk;

  std::vector<uint8_t> old;
  if (!ReadEntryBytes(EndOf(*list), &old)) {
    diagnostics_.Print("Failed to read block entry");
    return kStatusManifestUnreadable;
  }
  ManifestJournal replacement;
  replacement.generation = header.generation + 1;
  replacement.oldLength = old.size();
  replacement.oldHash = ManifestJournalHash(old.data(), old.size());
  const std::vector<uint8_t> merged = ManifestEntryBytes(name, filter);
  auto shorter = std::make_shared<ManifestList>();
  shorter->generation = replacement.generation;
  bool isPlaced = false;
  auto position = old.begin();
  for (const std::shared_ptr<BlockEntry>& entry : list->entries) {
    const auto next = position + static_cast<ptrdiff_t>(EntrySize(*entry));
    if (Lists(replaced, entry->name)) {
      if (!isPlaced) {
        replacement.entries.insert(replacement.entries.end(), merged.begin(), merged.end());
        shorter->entries.push_back(MakeEntry(name, filter));
        isPlaced = true;
      }
    } else {
      replacement.entries.insert(replacement.entries.end(), position, next);
      shorter->entries.push_back(entry);
    }
    position = next;
  }

  const std::string sidePath = JournalPath(file_->Path());
  if (const uint32_t status = WriteJournal(sidePath, replacement); status != kStatusOk) {
    if (status == kStatusManifestWriteFailed) diagnostics_.Print("Failed to write block entry");
    return status;
  }
  bool restored = false;
  if (const uint32_t status = WriteReplacing(replacement, old, &restored); status != kStatusOk) {
    // Where the old entries could not be put back either, the side file lets the next change finish this one.
    if (restored) IgnoreStatus(RemoveJournal(sidePath));  // the next change tries again
    return status;
  }
  *done = true;
  PublishGeneration(header, replacement.generation);
  state_->SetList(std::move(shorter));
  if (file_->Sync() != 0) return kStatusSyncFailed;
  IgnoreStatus(RemoveJournal(sidePath));  // as above
  return kStatusOk;
}

uint32_t Manifest::WriteReplacing(const ManifestJournal& replacement, const std::vector<uint8_t>& old,
                                  bool* restored) {
  const auto write = [this](const std::vector<uint8_t>& entries) {
    return file_->PWriteFully(entries.data(), entries.size(), kFirstEntry) ==
           static_cast<ssize_t>(entries.size());
  };
  const auto cut = [this](const std::vector<uint8_t>& entries) {
    return file_->Truncate(static_cast<int64_t>(kFirstEntry + entries.size())) == 0;
  };
  const bool written = write(replacement.entries);
  if (written && cut(replacement.entries)) return kStatusOk;

  *restored = write(old) && cut(old);
  diagnostics_.Print("Failed to write block entry");
  return written ? kStatusTruncateFailed : kStatusManifestWriteFailed;
}

// A truncation does not move the generation; only the file's length tells of it.
bool Manifest::StillLists(const BlockEntries& entries) {
  ManifestListPointer list;
  uint64_t size = 0;
  if (Load(&list) != kStatusOk || file_->Size(&size) != 0) return false;
  return size >= EndOf(*list) && ListsAll(list->entries, entries);
}

uint32_t Manifest::Truncate() {
  const std::string sidePath = JournalPath(file_->Path());
  // Before the entries go: what it would bring back must stay dropped.
  if (MayHaveJournal(sidePath)) IgnoreStatus(RemoveJournal(sidePath));
  auto empty = std::make_shared<ManifestList>();
  empty->generation = state_->List()->generation;
  const bool cut = file_->Truncate(kFirstEntry) == 0;
  // After the file: an opening that read the old entries meanwhile has not the last word.
  state_->SetList(std::move(empty));
  if (!cut) return kStatusTruncateFailed;
  IgnoreStatus(file_->Sync());  // only a loss of power could tell
  return kStatusOk;
}

// The entries go before the generation changes: whoever sees the new one finds none.
uint32_t Manifest::Clear() {
  ManifestHeader header;
  ManifestListPointer list;
  if (const uint32_t status = PrepareChange(&header, &list); status != kStatusOk) return status;
  auto empty = std::make_shared<ManifestList>();
  empty->generation = header.generation + 1;
  if (file_->Truncate(kFirstEntry) != 0) return kStatusTruncateFailed;
  PublishGeneration(header, empty->generation);
  state_->SetList(std::move(empty));
  return file_->Sync() == 0 ? kStatusOk : kStatusSyncFailed;
}

// Brings the list and the file together before a change: finishes or drops a replacement that was left
// behind, reads what other processes have recorded, follows a truncation, which does not move the generation,
// and cuts off what a torn write left behind the last entry.
uint32_t Manifest::PrepareChange(ManifestHeader* header, ManifestListPointer* list) {
  if (const uint32_t status = RecoverRewrite(); status != kStatusOk) {
    if (status == kStatusManifestUnreadable) diagnostics_.Print("Failed to read block entry");
    return status;
  }
  if (const uint32_t status = Load(list); status != kStatusOk) return status;
  if (!ReadHeader(header)) {
    diagnostics_.Print("Invalid manifest header checksum");
    return kStatusManifestChecksum;
  }
  uint64_t size = 0;
  if (file_->Size(&size) != 0) {
    diagnostics_.Print("Failed to seek to end of file");
    return kStatusSeekFailed;
  }
  if (size < EndOf(**list)) {
    Reading reading = ReadList(*header);
    if (const uint32_t status = StatusOf(reading); status != kStatusOk) return status;
    *list = std::move(reading.list);
    state_->SetList(*list);
  }
  const uint64_t end = EndOf(**list);
  if (size > end && file_->Truncate(static_cast<int64_t>(end)) != 0) return kStatusTruncateFailed;
  return kStatusOk;
}

// Whether the journal tells of a replacement that the manifest's bytes do not show completely. The bytes of a manifest
// that has moved on are not even looked at.
Manifest::Unfinished Manifest::FindPendingRewrite(const ManifestHeader& header,
                                                  ManifestJournal* replacement) const {
  bool unreadable = false;
  if (!ReadJournal(JournalPath(file_->Path()), replacement, &unreadable)) {
    return unreadable ? Unfinished::Unknown : Unfinished::No;
  }
  const uint32_t generation = header.generation;
  if (generation != replacement->generation && generation + 1 != replacement->generation)
    return Unfinished::No;

  uint64_t size = 0;
  std::vector<uint8_t> bytes;
  if (file_->Size(&size) != 0 || !ReadEntryBytes(size, &bytes)) return Unfinished::Unknown;
  return IsRewritePending(*replacement, generation, bytes.data(), bytes.size()) ? Unfinished::Yes
                                                                                : Unfinished::No;
}

// The list is not touched: whoever goes on reads it again, at the generation published here. A side file that
// can't be read stays: it may be all that is left of the list.
uint32_t Manifest::RecoverRewrite() {
  const std::string sidePath = JournalPath(file_->Path());
  if (!MayHaveJournal(sidePath)) return kStatusOk;
  ManifestHeader header;
  if (!ReadHeader(&header)) return kStatusOk;  // which is what the caller will find, too
  ManifestJournal replacement;
  const Unfinished unfinished = FindPendingRewrite(header, &replacement);
  if (unfinished == Unfinished::Unknown) return kStatusManifestUnreadable;
  if (unfinished == Unfinished::Yes) {
    const std::vector<uint8_t>& entries = replacement.entries;
    const auto end = static_cast<int64_t>(kFirstEntry + entries.size());
    if (file_->PWriteFully(entries.data(), entries.size(), kFirstEntry) !=
        static_cast<ssize_t>(entries.size())) {
      diagnostics_.Print("Failed to write block entry");
      return kStatusManifestWriteFailed;
    }
    if (file_->Truncate(end) != 0) return kStatusTruncateFailed;
    PublishGeneration(header, replacement.generation);
    if (file_->Sync() != 0) return kStatusSyncFailed;
  }
  return RemoveJournal(sidePath) ? kStatusOk : kStatusManifestWriteFailed;
}

bool Manifest::ReadEntryBytes(uint64_t end, std::vector<uint8_t>* bytes) const {
  bytes->resize(end < kFirstEntry ? 0 : end - kFirstEntry);
  return file_->PReadFully(bytes->data(), bytes->size(), kFirstEntry) == static_cast<ssize_t>(bytes->size());
}

// A generation that another process published in between counts as its move; this one does not.
void Manifest::PublishGeneration(ManifestHeader header, uint32_t generation) {
  const std::lock_guard<std::mutex> lock(state_->changesMutex);
  if (state_->knownGeneration != header.generation) ++state_->externalChanges;
  header.generation = generation;
  header.checksum = StoreChecksum(&header, ManifestHeaderOffset::kChecksum);
  state_->knownGeneration = generation;
  StoreHeaderAtomically(header_, &header);
}

}  // namespace Kestrun
