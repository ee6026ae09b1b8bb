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

// The order matters: what may run out of memory; the entry's bytes; the generation, because a reader that
// sees the new one must find the entry complete; the sync of both.
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

// The journal is synced before the manifest is touched, and stays until the manifest is synced. The new
// entries are written over the old ones, which as a rule takes no space that the file does not have. A
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
  ManifestJournal journal;
  journal.generation = header.generation + 1;
  journal.oldLength = old.size();
  journal.oldHash = ManifestJournalHash(old.data(), old.size());
  const std::vector<uint8_t> merged = ManifestEntryBytes(name, filter);
  auto shorter = std::make_shared<ManifestList>();
  shorter->generation = journal.generation;
  bool isPlaced = false;
  auto position = old.begin();
  for (const std::shared_ptr<BlockEntry>& entry : list->entries) {
    const auto next = position + static_cast<ptrdiff_t>(EntrySize(*entry));
    if (Lists(replaced, entry->name)) {
      if (!isPlaced) {
        journal.entries.insert(journal.entries.end(), merged.begin(), merged.end());
        shorter->entries.push_back(MakeEntry(name, filter));
        isPlaced = true;
      }
    } else {
      journal.entries.insert(journal.entries.end(), position, next);
      shorter->entries.push_back(entry);
    }
    position = next;
  }

  const std::string journalPath = JournalPath(file_->Path());
  if (const uint32_t status = WriteJournal(journalPath, journal); status != kStatusOk) {
    if (status == kStatusManifestWriteFailed) diagnostics_.Print("Failed to write block entry");
    return status;
  }
  bool restored = false;
  if (const uint32_t status = OverwriteEntries(journal, old, &restored); status != kStatusOk) {
    // If the old entries could not be put back either, the journal lets the next change finish this one.
    if (restored) IgnoreStatus(RemoveJournal(journalPath));  // the next change tries again
    return status;
  }
  *done = true;
  PublishGeneration(header, journal.generation);
  state_->SetList(std::move(shorter));
  if (file_->Sync() != 0) return kStatusSyncFailed;
  IgnoreStatus(RemoveJournal(journalPath));  // as above
  return kStatusOk;
}

uint32_t Manifest::OverwriteEntries(const ManifestJournal& journal, const std::vector<uint8_t>& old,
                                    bool* restored) {
  const auto write = [this](const std::vector<uint8_t>& entries) {
    return file_->PWriteFully(entries.data(), entries.size(), kFirstEntry) ==
           static_cast<ssize_t>(entries.size());
  };
  const auto cut = [this](const std::vector<uint8_t>& entries) {
    return file_->Truncate(static_cast<int64_t>(kFirstEntry + entries.size())) == 0;
  };
  const bool written = write(journal.entries);
  if (written && cut(journal.entries)) return kStatusOk;

  *restored = write(old) && cut(old);
  diagnostics_.Print("Failed to write block entry");
  return written ? kStatusTruncateFailed : kStatusManifestWriteFailed;
}

// A truncation does not change the generation; only the file's length tells of it.
bool Manifest::StillLists(const BlockEntries& entries) {
  ManifestListPointer list;
  uint64_t size = 0;
  if (Load(&list) != kStatusOk || file_->Size(&size) != 0) return false;
  return size >= EndOf(*list) && ListsAll(list->entries, entries);
}

uint32_t Manifest::FollowTruncation() {
  ManifestListPointer list;
  if (const uint32_t status = Load(&list); status != kStatusOk) return status;
  uint64_t size = 0;
  ManifestHeader header;
  if (file_->Size(&size) != 0 || size >= EndOf(*list) || !ReadHeader(&header)) return kStatusOk;
  Reading reading = ReadList(header);
  if (const uint32_t status = StatusOf(reading); status != kStatusOk) return status;
  state_->SetList(std::move(reading.list));
  return kStatusOk;
}

uint32_t Manifest::Truncate() {
  const std::string journalPath = JournalPath(file_->Path());
  // Before the entries go: what it would bring back must stay dropped.
  if (MayHaveJournal(journalPath)) IgnoreStatus(RemoveJournal(journalPath));
  auto empty = std::make_shared<ManifestList>();
  empty->generation = state_->List()->generation;
  const bool cut = file_->Truncate(kFirstEntry) == 0;
  // After the file: an opening that read the old entries meanwhile has not the last word.
  state_->SetList(std::move(empty));
  if (!cut) return kStatusTruncateFailed;
  IgnoreStatus(file_->Sync());  // only a loss of power could tell
  return kStatusOk;
}

// The entries go before the generation changes, because a reader that sees the new one must find none.
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

// Brings the list and the file together before a change:
//   - finishes or drops a rewrite whose process was killed;
//   - reads what other processes have recorded;
//   - follows a truncation, which does not change the generation;
//   - cuts off what a torn write left after the last entry.
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

// The entries are read only if they decide: not if the journal belongs to another list.
Manifest::PendingRewrite Manifest::FindPendingRewrite(const ManifestHeader& header,
                                                      ManifestJournal* journal) const {
  bool unreadable = false;
  if (!ReadJournal(JournalPath(file_->Path()), journal, &unreadable)) {
    return unreadable ? PendingRewrite::Unknown : PendingRewrite::No;
  }
  if (ExamineRewrite(*journal, header.generation, nullptr, 0) == RewriteState::OtherList)
    return PendingRewrite::No;

  uint64_t size = 0;
  std::vector<uint8_t> bytes;
  if (file_->Size(&size) != 0 || !ReadEntryBytes(size, &bytes)) return PendingRewrite::Unknown;
  const RewriteState state = ExamineRewrite(*journal, header.generation, bytes.data(), bytes.size());
  return state == RewriteState::Pending ? PendingRewrite::Yes : PendingRewrite::No;
}

// The list in memory is not touched: the caller reads it again, at the generation published here. A journal
// that can't be read stays: it may be all that is left of the list.
uint32_t Manifest::RecoverRewrite() {
  const std::string journalPath = JournalPath(file_->Path());
  if (!MayHaveJournal(journalPath)) return kStatusOk;
  ManifestHeader header;
  if (!ReadHeader(&header)) return kStatusOk;  // the caller will find the same
  ManifestJournal journal;
  const PendingRewrite pending = FindPendingRewrite(header, &journal);
  if (pending == PendingRewrite::Unknown) return kStatusManifestUnreadable;
  if (pending == PendingRewrite::Yes) {
    const std::vector<uint8_t>& entries = journal.entries;
    const auto end = static_cast<int64_t>(kFirstEntry + entries.size());
    if (file_->PWriteFully(entries.data(), entries.size(), kFirstEntry) !=
        static_cast<ssize_t>(entries.size())) {
      diagnostics_.Print("Failed to write block entry");
      return kStatusManifestWriteFailed;
    }
    if (file_->Truncate(end) != 0) return kStatusTruncateFailed;
    PublishGeneration(header, journal.generation);
    if (file_->Sync() != 0) return kStatusSyncFailed;
  }
  return RemoveJournal(journalPath) ? kStatusOk : kStatusManifestWriteFailed;
}

bool Manifest::ReadEntryBytes(uint64_t end, std::vector<uint8_t>* bytes) const {
  bytes->resize(end < kFirstEntry ? 0 : end - kFirstEntry);
  return file_->PReadFully(bytes->data(), bytes->size(), kFirstEntry) == static_cast<ssize_t>(bytes->size());
}

// A generation that another process published in between counts as an external change; this one does not.
void Manifest::PublishGeneration(ManifestHeader header, uint32_t generation) {
  const std::lock_guard<std::mutex> lock(state_->changesMutex);
  if (state_->knownGeneration != header.generation) ++state_->externalChanges;
  header.generation = generation;
  header.checksum = StoreChecksum(&header, ManifestHeaderOffset::kChecksum);
  state_->knownGeneration = generation;
  StoreHeaderAtomically(header_, &header);
}

}  // namespace Kestrun
