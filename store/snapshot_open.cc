// Reading the files of a store that is not opened.
//
// The log is read whole, under its lock for reading, and indexed in memory; the blocks are opened while the
// log is still locked, so that the list fits to it.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "base/clock.h"
#include "format/block_format.h"
#include "format/file_magic.h"
#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "kestrun/status.h"
#include "storage/os_file.h"
#include "storage/os_file_source.h"
#include "store/snapshot_impl.h"
#include "store/store_directory.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

constexpr unsigned int kLockMilliseconds = 5000;

// Blocks are loaded until they have so many entries in all; of the others only what is asked for is read.
constexpr uint32_t kMaxIndexed = 1 << 17;

uint32_t OpenToRead(const std::string& path, uint32_t otherwise, std::shared_ptr<OsFile>* file) {
  errno = 0;
  const uint32_t status = OsFile::Open(path, kOpenReadOnly, file);
  if (status == kStatusOk) return kStatusOk;
  const int error = errno;
  TellReason(Diagnostics::HandlerOnly(), "Failed to open", path, error);
  return error == EACCES || error == EPERM ? kStatusNoPermission : otherwise;
}

// A lock for reading, for a scope. On a file system without locks nobody writes either.
class ReadSection {
 public:
  explicit ReadSection(std::shared_ptr<OsFile> file) : file_(std::move(file)) {
    status_ = file_->LockWithin(LockLevel::Shared, kLockMilliseconds, &retries_, &failures_);
  }
  ~ReadSection() {
    if (status_ == kStatusOk) IgnoreStatus(file_->Unlock(LockLevel::Shared));  // nobody is left to tell
  }
  ReadSection(const ReadSection&) = delete;
  ReadSection& operator=(const ReadSection&) = delete;
  uint32_t Status() const { return status_; }

 private:
  std::shared_ptr<OsFile> file_;
  std::atomic<uint64_t> retries_{0};
  std::atomic<uint64_t> failures_{0};
  uint32_t status_;
};

// What follows the records that a replay finds is damaged; or it never reached the disk,
// and the power was lost.
void TellRest(const std::string& path, uint64_t end, uint32_t used) {
  Diagnostics::HandlerOnly().Printf(
      "Log file %s can be read up to byte %u of %u; the rest is damaged or was never written\n", path.c_str(),
      static_cast<unsigned int>(end), used);
}

// Copies the used bytes of the log and indexes the records that a replay would find.
uint32_t ReadLog(const std::string& path, OsFile& file, LogView* view) {
  OsFileSource source(file);
  const WalHeaderView header = ReadWalHeader(source);
  if (!header.complete || !header.checksumMatches) return kStatusWalChecksum;
  if (!header.magicMatches) return kStatusBadMagic;
  uint64_t size = 0;
  if (file.Size(&size) != 0) return kStatusStatFailed;

  auto filling = std::make_shared<LogFilling>();
  const auto used = static_cast<uint32_t>(std::min<uint64_t>(header.header.used, size));
  *view = {filling, nullptr, kWalFirstRecord};
  if (used <= kWalFirstRecord) {
    if (used < header.header.used) TellRest(path, used, header.header.used);
    return kStatusOk;
  }
  filling->copy = LogCopy::Create(used);
  if (filling->copy == nullptr) return kStatusNoMemory;
  if (!filling->copy->Fill(
          [&](uint8_t* bytes) { return file.PReadFully(bytes, used, 0) == static_cast<ssize_t>(used); })) {
    return kStatusWalOpenFailed;
  }

  MemorySource copied(filling->copy->Bytes(), used);
  WalReader records(copied, header.header.used, size);
  while (records.Next()) {
    const WalRecordView& record = records.Record();
    filling->index.Insert(record.key, {static_cast<uint32_t>(record.offset), ToDataEntry(record.header)});
  }
  // Of a file that was cut short the last records may end where the file does.
  if (records.Offset() < header.header.used) TellRest(path, records.Offset(), header.header.used);
  *view = {filling, filling->copy, used};
  return kStatusOk;
}

uint32_t ReadEntries(ByteSource& source, uint64_t end, uint64_t start, BlockEntries* entries) {
  ManifestReader reader(source, end, start);
  while (reader.Next()) {
    auto entry = std::make_shared<BlockEntry>();
    entry->name = reader.Entry().name;
    if (!reader.ReadFilter(&entry->filter)) return kStatusManifestUnreadable;
    entries->push_back(std::move(entry));
  }
  return IsWholeList(reader.End()) ? kStatusOk : kStatusManifestUnreadable;
}

// The list of blocks; a rewrite that a killed process did not finish counts as finished.
uint32_t ReadManifest(const std::string& path, BlockEntries* entries) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OpenToRead(path, kStatusManifestUnreadable, &file); status != kStatusOk)
    return status;
  const ReadSection section(file);
  if (section.Status() != kStatusOk) return section.Status();
  OsFileSource source(*file);
  const ManifestHeaderView header = ReadManifestHeader(source);
  if (!header.complete || !header.checksumMatches) return kStatusManifestChecksum;
  if (!header.magicMatches) return kStatusBadMagic;
  // Nothing was ever recorded. An entry that stands there all the same is one whose process ended before it
  // counted: whoever opens the store does not see it either.
  if (header.header.generation == 0) return kStatusOk;
  uint64_t size = 0;
  if (file->Size(&size) != 0) return kStatusStatFailed;

  ManifestJournal journal;
  std::shared_ptr<OsFile> journalFile;
  if (OsFile::Open(path + kManifestJournalSuffix, kOpenReadOnly, &journalFile) == kStatusOk) {
    OsFileSource journalSource(*journalFile);
    const JournalState state = ReadManifestJournal(journalSource, &journal);
    if (state == JournalState::Unreadable) return kStatusManifestUnreadable;
    std::vector<uint8_t> bytes(static_cast<size_t>(size - sizeof(ManifestHeader)));
    if (!ReadExactly(source, sizeof(ManifestHeader), bytes.data(), bytes.size()))
      return kStatusManifestUnreadable;
    if (state == JournalState::Complete && ExamineRewrite(journal, header.header.generation, bytes.data(),
                                                          bytes.size()) == RewriteState::Pending) {
      MemorySource rewritten(journal.entries.data(), journal.entries.size());
      return ReadEntries(rewritten, journal.entries.size(), 0, entries);
    }
  }
  return ReadEntries(source, size, sizeof(ManifestHeader), entries);
}

uint32_t LoadListedBlock(const std::string& path, uint32_t maxIndexed, std::shared_ptr<Block>* block) {
  const Diagnostics& diagnostics = Diagnostics::HandlerOnly();
  Block* loaded = nullptr;
  errno = 0;
  BlockLoading loading;
  loading.maxIndexed = maxIndexed;
  const uint32_t status = Block::Load(path, loading, &loaded, kAnyPageSize);
  const int error = errno;
  if (status == kStatusOk) {
    block->reset(loaded);
  } else if (status == kStatusBlockCorrupt) {
    diagnostics.Printf("Block file %s is damaged\n", path.c_str());
  } else if (status == kStatusOpenFailed && error == ENOENT) {
    diagnostics.Printf("Block file %s is missing\n", path.c_str());
    return kStatusBlockCorrupt;
  } else {
    TellReason(diagnostics, "Failed to read block file", path, error);
    if (status == kStatusOpenFailed && (error == EACCES || error == EPERM)) return kStatusNoPermission;
  }
  return status;
}

// A block that is gone may have been merged meanwhile: the list is read again then. A damaged one stays in
// the set, and the reads that need it say so.
uint32_t OpenListed(const std::string& path, std::shared_ptr<const BlockSet>* blocks) {
  for (int reads = 1;; ++reads) {
    BlockEntries entries;
    if (const uint32_t status = ReadManifest(path + "/" + kManifestFileName, &entries); status != kStatusOk) {
      return status;
    }
    auto set = std::make_shared<BlockSet>();
    bool isComplete = true;
    uint32_t left = kMaxIndexed;
    for (const std::shared_ptr<BlockEntry>& entry : entries) {
      std::shared_ptr<Block> block;
      const uint32_t status = LoadListedBlock(path + "/" + entry->name + kBlockFileSuffix, left, &block);
      if (status != kStatusOk && status != kStatusBlockCorrupt) return status;
      if (block != nullptr && block->Index() != nullptr) left -= std::min(left, block->Count());
      isComplete = isComplete && block != nullptr;
      set->push_back({entry, std::move(block)});
    }
    if (!isComplete && reads < kMaxListReads) {
      BlockEntries again;
      if (const uint32_t status = ReadManifest(path + "/" + kManifestFileName, &again); status != kStatusOk) {
        return status;
      }
      const bool isSame =
          again.size() == entries.size() &&
          std::equal(again.begin(), again.end(), entries.begin(),
                     [](const auto& left, const auto& right) { return left->name == right->name; });
      if (!isSame) continue;
    }
    *blocks = std::move(set);
    return kStatusOk;
  }
}

}  // namespace

uint32_t Snapshot::Open(const std::string& path, std::unique_ptr<Snapshot>* out) {
  if (out == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&]() -> uint32_t {
    DirectoryState state = DirectoryState::Missing;
    const Diagnostics& diagnostics = Diagnostics::HandlerOnly();
    if (const uint32_t status = ExamineDirectory(path, diagnostics, &state); status != kStatusOk)
      return status;
    if (state != DirectoryState::Store) return kStatusStoreMissing;

    std::shared_ptr<OsFile> log;
    const std::string logPath = path + "/" + kWalFileName;
    if (const uint32_t status = OpenToRead(logPath, kStatusWalOpenFailed, &log); status != kStatusOk)
      return status;
    const ReadSection section(log);
    if (section.Status() != kStatusOk) return section.Status();
    LogView view;
    if (const uint32_t status = ReadLog(logPath, *log, &view); status != kStatusOk) return status;
    std::shared_ptr<const BlockSet> blocks;
    if (const uint32_t status = OpenListed(path, &blocks); status != kStatusOk) return status;
    out->reset(new Snapshot(std::make_shared<const Impl>(std::move(view), std::move(blocks), NowSeconds())));
    return kStatusOk;
  });
}

}  // namespace Kestrun
