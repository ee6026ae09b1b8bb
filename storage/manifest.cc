#include "storage/manifest.h"

#include <unistd.h>

#include <cstring>

#include "base/key_bytes.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/key_filter.h"
#include "format/manifest_reader.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "storage/file_creation.h"
#include "storage/manifest_journal.h"
#include "storage/os_file_source.h"
#include "storage/published_header.h"

namespace Kestrun {
namespace {

ManifestHeader EmptyManifestHeader() {
  ManifestHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.headerSize = sizeof(ManifestHeader);
  header.checksum = StoreChecksum(&header, ManifestHeaderOffset::kChecksum);
  return header;
}

}  // namespace

// The file is new if the list is another file's that had the same number. Nobody has had the file open if
// there is no handle, so that somebody else may have put it there.
void ManifestSharedState::AddHandle(bool isNewFile) {
  ManifestListPointer empty = std::make_shared<ManifestList>();
  const std::lock_guard<std::mutex> lock(listMutex_);
  if (isNewFile || handles_ == 0) list_.swap(empty);
  ++handles_;
}

void ManifestSharedState::RemoveHandle() {
  const std::lock_guard<std::mutex> lock(listMutex_);
  --handles_;
}

ManifestListPointer ManifestSharedState::List() {
  const std::lock_guard<std::mutex> lock(listMutex_);
  return list_;
}

void ManifestSharedState::SetList(ManifestListPointer list) {
  InodeRegistry<ManifestSharedState>::ChangeUnforked([&] {
    const std::lock_guard<std::mutex> lock(listMutex_);
    list_.swap(list);
  });
}

bool ManifestSharedState::SetListIfUnchanged(ManifestListPointer* expected, ManifestListPointer list) {
  bool unchanged = false;
  InodeRegistry<ManifestSharedState>::ChangeUnforked([&] {
    const std::lock_guard<std::mutex> lock(listMutex_);
    unchanged = list_ == *expected;
    if (unchanged) list_.swap(list);
    *expected = list_;
  });
  return unchanged;
}

// The child shares the store with its parent from the beginning, and draws the same random names.
void ManifestSharedState::AfterFork() {
  ReinitAfterFork(listMutex_);
  ReinitAfterFork(changesMutex);
  ++externalChanges;
}

// Creates a missing manifest at once with its header. An existing one is opened, initialized in place if it
// is empty, mapped, verified and read; a rewrite whose process was killed is finished before the reading.
uint32_t Manifest::Open(const std::string& path, Manifest** out, const Diagnostics& diagnostics) {
  bool isNewFile = false;
  if (access(path.c_str(), F_OK) != 0) {
    const ManifestHeader header = EmptyManifestHeader();
    isNewFile = CreateFileAtomically(path, &header, sizeof(header), sizeof(header));
    if (isNewFile && !SyncDirectory(DirectoryOf(path))) return kStatusCreateFailed;
  }

  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadWrite, &file) != kStatusOk) return kStatusManifestUnreadable;
  uint64_t size = 0;
  if (file->Size(&size) != 0) {
    diagnostics.Printf("Failed to get file size: %s", path.c_str());
    return kStatusStatFailed;
  }
  if (size == 0) {
    isNewFile = true;
    if (const uint32_t status = CreateInPlace(*file, &size, diagnostics); status != kStatusOk) return status;
  }
  if (size < sizeof(ManifestHeader)) {
    diagnostics.Print("Invalid manifest header checksum");
    return kStatusManifestChecksum;
  }

  void* header = file->Map(sizeof(ManifestHeader), 0, 0);
  if (header == nullptr) {
    diagnostics.Printf("Failed to map wal: %s", path.c_str());
    return kStatusMapFailed;
  }
  file->TrackMapping(header, sizeof(ManifestHeader));
  if (isNewFile && file->IsSpecial()) {
    const ManifestHeader empty = EmptyManifestHeader();
    std::memcpy(header, &empty, sizeof(empty));  // what was written to a device need not show in its mapping
  }
  std::unique_ptr<Manifest> manifest(new Manifest(file, static_cast<uint8_t*>(header), diagnostics));
  if (const uint32_t status = manifest->VerifyAtOpen(); status != kStatusOk) return status;

  manifest->Attach(isNewFile);
  if (const uint32_t status = manifest->LoadAtOpen(); status != kStatusOk) {
    diagnostics.Print("Failed to load block entries");
    return status;
  }
  *out = manifest.release();
  return kStatusOk;
}

Manifest::Manifest(std::shared_ptr<OsFile> file, uint8_t* header, const Diagnostics& diagnostics)
    : file_(std::move(file)), header_(header), state_(nullptr), diagnostics_(diagnostics) {}

Manifest::~Manifest() {
  if (state_ != nullptr) state_->RemoveHandle();
}

// Writes the whole header at once, unless another process has done so meanwhile.
uint32_t Manifest::CreateInPlace(OsFile& file, uint64_t* size, const Diagnostics& diagnostics) {
  const DirectoryCreationLock guard(DirectoryOf(file.Path()));
  if (file.Size(size) == 0 && *size != 0) return kStatusOk;
  if (file.Seek(sizeof(ManifestHeader) - 1, SEEK_SET) < 0) {
    diagnostics.Printf("Failed to seek file: %s", file.Path().c_str());
    return kStatusSeekFailed;
  }
  const ManifestHeader header = EmptyManifestHeader();
  if (file.PWriteFully(&header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
    IgnoreStatus(file.Truncate(0));  // an empty file is filled in by the next opening
    diagnostics.Print("Failed to write header of manifest file");
    return kStatusCreateFailed;
  }
  *size = sizeof(header);
  return file.SyncIfSupported() && SyncDirectory(DirectoryOf(file.Path())) ? kStatusOk : kStatusCreateFailed;
}

// The checksum first, then the magic; the version is not looked at. Another process may be in the middle of
// an update, so a bad header is read again under the lock before it is called damaged.
uint32_t Manifest::VerifyAtOpen() const {
  ManifestHeader header;
  if (!ReadAtOpen(file_, [&] { return ReadHeader(&header); })) {
    diagnostics_.Print("Invalid manifest header checksum");
    return kStatusManifestChecksum;
  }
  if (std::memcmp(header.magic, kFileMagic, kMagicSize) != 0) {
    diagnostics_.Print("Invalid wal magic");
    return kStatusBadMagic;
  }
  return kStatusOk;
}

// Finds the list that the process has for the file, and finishes a rewrite whose process was killed. If
// anybody holds the lock the rewrite may still be under way; reading the list copes with that.
void Manifest::Attach(bool isNewFile) {
  state_ = InodeRegistry<ManifestSharedState>::FindOrCreate(
      file_->Id(), [&](ManifestSharedState& state) { state.AddHandle(isNewFile); });

  if (!MayHaveJournal(JournalPath(file_->Path()))) return;
  const TryFileLockGuard lock(file_, LockLevel::Exclusive);
  if (lock.Status() == kStatusOk) IgnoreStatus(RecoverRewrite());  // the next change tries again
}

uint32_t Manifest::Load() {
  ManifestListPointer list;
  return Load(&list);
}

// An opening, which holds no lock, may replace the list meanwhile.
uint32_t Manifest::Load(ManifestListPointer* list) {
  *list = state_->List();
  for (;;) {
    ManifestHeader header;
    if (!ReadHeader(&header)) {
      diagnostics_.Print("Invalid manifest header checksum");
      return kStatusManifestChecksum;
    }
    if (header.generation == (*list)->generation) return kStatusOk;
    Reading reading = ReadList(header);
    if (const uint32_t status = StatusOf(reading); status != kStatusOk) return status;
    if (state_->SetListIfUnchanged(list, std::move(reading.list))) return kStatusOk;
  }
}

uint32_t Manifest::LoadUnlocked(BlockEntries* entries) {
  ManifestListPointer list;
  const uint32_t status = LoadUnlocked(&list);
  *entries = list->entries;
  return status;
}

uint32_t Manifest::LoadUnlocked(ManifestListPointer* list) {
  if (TryLoadUnlocked(list)) return kStatusOk;
  const FileLockGuard lock(file_, LockLevel::Shared);
  return Load(list);
}

// The list that was read without a lock counts only if no other thread has replaced the list meanwhile: that
// thread may have changed the file.
bool Manifest::TryLoadUnlocked(ManifestListPointer* list) {
  *list = state_->List();
  ManifestHeader header;
  if (!ReadHeader(&header)) return false;
  if (header.generation == (*list)->generation) return true;
  Reading reading = ReadList(header);
  return reading.outcome == Reading::Outcome::Complete &&
         state_->SetListIfUnchanged(list, std::move(reading.list));
}

uint32_t Manifest::LoadAtOpen() {
  ManifestListPointer list;
  return ReadAtOpen(file_, [&] { return TryLoadUnlocked(&list); }) ? kStatusOk : Load(&list);
}

uint32_t Manifest::StatusOf(const Reading& reading) const {
  switch (reading.outcome) {
    case Reading::Outcome::Complete:
      return kStatusOk;
    case Reading::Outcome::BadEntry:
      diagnostics_.Print("Failed to decode header of block entry");
      return kStatusManifestUnreadable;
    case Reading::Outcome::Unreadable:
      break;
  }
  diagnostics_.Print("Failed to read block entry");
  return kStatusManifestUnreadable;
}

namespace {

// Gathers the entries of a list; `*badEntry` is set when one of them is damaged.
bool ParseEntries(ManifestReader* reader, BlockEntries* entries, bool* badEntry) {
  bool filterRead = true;
  while (filterRead && reader->Next()) {
    auto block = std::make_shared<BlockEntry>();
    block->name = reader->Entry().name;
    filterRead = reader->ReadFilter(&block->filter);
    if (filterRead) entries->push_back(std::move(block));
  }
  *badEntry = reader->End() == ManifestEnd::BadChecksum || reader->End() == ManifestEnd::BadName;
  return filterRead && IsWholeList(reader->End());
}

}  // namespace

Manifest::Reading Manifest::ReadList(const ManifestHeader& header) const {
  Reading reading;
  BlockEntries& entries = reading.list->entries;
  reading.list->generation = header.generation;
  bool badEntry = false;
  bool complete = false;

  ManifestJournal journal;
  uint64_t size = 0;
  const PendingRewrite pending = FindPendingRewrite(header, &journal);
  if (pending == PendingRewrite::Yes) {
    MemorySource source(journal.entries.data(), journal.entries.size());
    ManifestReader reader(source, journal.entries.size(), 0);
    complete = ParseEntries(&reader, &entries, &badEntry);
  } else if (pending == PendingRewrite::No && file_->Size(&size) == 0) {
    OsFileSource source(*file_);
    ManifestReader reader(source, size);
    complete = ParseEntries(&reader, &entries, &badEntry);
  }
  if (!complete) reading.outcome = badEntry ? Reading::Outcome::BadEntry : Reading::Outcome::Unreadable;
  return reading;
}

BlockEntries Manifest::Entries() {
  ManifestListPointer list;
  IgnoreStatus(Load(&list));  // callers work on whatever the list holds
  return list->entries;
}

std::shared_ptr<const BlockEntry> Manifest::FindEntry(const std::string& name) {
  for (const std::shared_ptr<BlockEntry>& entry : Entries()) {
    if (entry->name == name) return entry;
  }
  return nullptr;
}

BlockEntries Manifest::FindCandidates(const Key& key) {
  ManifestListPointer list;
  IgnoreStatus(Load(&list));  // as above
  const uint32_t hash = KeyHash(BytesOf(key));
  BlockEntries candidates;
  for (const std::shared_ptr<BlockEntry>& entry : list->entries) {
    if (KeyFilterMayContain(hash, entry->filter)) candidates.push_back(entry);
  }
  return candidates;
}

uint64_t Manifest::ExternalChanges() {
  const uint8_t* field = header_ + ManifestHeaderOffset::kGeneration;
  if (LoadHeaderField(field) != state_->knownGeneration) {
    const std::lock_guard<std::mutex> lock(state_->changesMutex);
    const uint32_t generation = LoadHeaderField(field);
    if (generation != state_->knownGeneration) {
      state_->knownGeneration = generation;
      ++state_->externalChanges;
    }
  }
  return state_->externalChanges;
}

bool Manifest::ReadHeader(ManifestHeader* header) const {
  std::memcpy(header, header_, sizeof(*header));
  return StoreChecksum(header, ManifestHeaderOffset::kChecksum) == header->checksum;
}

}  // namespace Kestrun
