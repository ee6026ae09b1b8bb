// storage/manifest.h: the list of the blocks that make up a store, oldest first, in manifest_v5.
//
// Ownership: a Manifest owns its mapping of the header and shares its file. The list belongs to the file, one
//            for each process, and lives until the process ends; entries are shared with their users.
// Threads:   Open, the destructor and ExternalChanges may run at any time and never wait for a lock. Every
//            other operation is called with the file's lock held (OsFile::Lock on File()): Exclusive for
//            Append, Replace and Truncate, Shared at least for the rest, except where LoadUnlocked says
//            otherwise.
// Failure:   statuses, and the diagnostics named with each operation. Any operation may throw std::bad_alloc;
//            it has changed nothing on disk then.
// Bytes:     storage/manifest_format.h.
//
// The header's generation, which changes with every recorded block, tells each process whether its list is
// current. Truncate leaves it alone: other processes keep their lists until the next Append.
// Compat: clear-unnoticed.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/diagnostics.h"
#include "format/manifest_format.h"
#include "kestrun/key.h"
#include "storage/os_file.h"

namespace Kestrun {

struct BlockEntry {
  std::string name;             // of the block; its file is the name and ".blk_v5"
  std::vector<uint8_t> filter;  // format/key_filter.h
};
using BlockEntries = std::vector<std::shared_ptr<BlockEntry>>;

// What the manifest lists at one generation. It is never changed, only replaced.
struct ManifestList {
  uint32_t generation = 0;
  BlockEntries entries;
};
using ManifestListPointer = std::shared_ptr<const ManifestList>;

// What one process knows of one manifest. Its mutexes are held for a few instructions only, never while a
// caller's code runs, so that openings need not wait for the manifest's lock.
class ManifestSharedState {
 public:
  // A handle comes and goes. The list starts over with the first one, or if the file is new. AddHandle is
  // called while the registry is locked.
  void AddHandle(bool isNewFile);
  void RemoveHandle();

  ManifestListPointer List();
  void SetList(ManifestListPointer list);
  // Sets the list unless another thread has replaced `*expected` meanwhile. `*expected` is the current list
  // then.
  bool SetListIfUnchanged(ManifestListPointer* expected, ManifestListPointer list);

  std::mutex changesMutex;
  std::atomic<uint32_t> knownGeneration{0};  // the last one that this process published or noticed
  std::atomic<uint64_t> externalChanges{0};  // generations that it noticed and had not published, and a fork

  void AfterFork();

 private:
  std::mutex listMutex_;  // to change the list, the registry is locked, too
  ManifestListPointer list_ = std::make_shared<ManifestList>();
  uint32_t handles_ = 0;
};

// The bytes of the entry that records the block `name` now. May throw std::bad_alloc.
std::vector<uint8_t> ManifestEntryBytes(const std::string& name, const std::vector<uint8_t>& filter);

struct ManifestJournal;

class Manifest {
 public:
  // Opens the manifest, creating it when it is missing or empty, and reads its list. On success `*out` is a
  // Manifest that the caller deletes.
  //
  // kStatusManifestUnreadable  the file can't be opened
  // kStatusStatFailed          "Failed to get file size: PATH"
  // kStatusSeekFailed          the file can't be sought, as a pipe; "Failed to seek file: PATH"
  // kStatusCreateFailed        "Failed to write header of manifest file"
  // kStatusMapFailed           "Failed to map wal: PATH"
  // kStatusManifestChecksum    also when the file is shorter than a header; "Invalid manifest header
  //                            checksum"
  // kStatusBadMagic            "Invalid wal magic"
  // The statuses of Load       Load's message and "Failed to load block entries"
  //
  // Compat: manifest-messages-say-wal. Two of the messages have the log's wording.
  static uint32_t Open(const std::string& path, Manifest** out,
                       const Diagnostics& diagnostics = Diagnostics::Printing());

  ~Manifest();
  Manifest(const Manifest&) = delete;
  Manifest& operator=(const Manifest&) = delete;

  // Reads the list again if the header's generation is not the one it was read at. A failure leaves the list
  // as it was. An entry header that is cut off by the end of the file is not an entry, nor is a last one
  // whose bytes did not reach the disk (format/torn_entry.h).
  //
  // kStatusManifestChecksum    "Invalid manifest header checksum"
  // kStatusManifestUnreadable  "Failed to decode header of block entry" when an entry fails its checksum or
  //                            has no usable name, "Failed to read block entry" when a filter is cut off or
  //                            the system can't read
  uint32_t Load();
  // Load for a caller that holds no lock. Takes the lock if what it finds does not add up, as in the middle
  // of somebody else's update. `*entries` is the list, the old one after a failure.
  uint32_t LoadUnlocked(BlockEntries* entries);
  uint32_t LoadUnlocked(ManifestListPointer* list);

  // Records a block: writes its entry after the last one listed, increments the generation and syncs both.
  // What a torn write left after the last entry is cut off first.
  //
  // kStatusSeekFailed           the file's end can't be found; "Failed to seek to end of file"
  // kStatusTruncateFailed       a torn entry can't be cut off
  // kStatusManifestWriteFailed  the entry could not be written and is not in the file; "Failed to write block
  //                             entry"
  // kStatusSyncFailed           the block is recorded but may not survive a loss of power
  // The statuses of Load.
  uint32_t Append(const std::string& name, const std::vector<uint8_t>& filter);

  // Records one block in the place of `replaced`, which stand side by side in the list. `*done` is
  // false with kStatusOk when one of `replaced` is listed no more: nothing is changed then. A process killed
  // on the way leaves the old list or the new one. Statuses as Append, and kStatusSyncFailed before anything
  // changed when `*done` is false.
  uint32_t Replace(const BlockEntries& replaced, const std::string& name, const std::vector<uint8_t>& filter,
                   bool* done);

  // Drops every entry, in memory and in the file, and leaves the generation alone. kStatusTruncateFailed when
  // the file can't be cut: the next Append does it.
  uint32_t Truncate();

  // Drops every entry and changes the generation, so that other processes see it at once; both are synced.
  // Statuses as Append.
  uint32_t Clear();

  // The whole list, after Load, whose status is ignored.
  BlockEntries Entries();
  // The entry of the block `name`, or null, after Load, whose status is ignored.
  std::shared_ptr<const BlockEntry> FindEntry(const std::string& name);
  // The entries whose filter may contain `key`, after Load, whose status is ignored.
  BlockEntries FindCandidates(const Key& key);

  // Reads the list again if the file is shorter than the list: a truncation by the older face of another
  // process, which does not change the generation. Statuses as Load.
  uint32_t FollowTruncation();

  // Whether every one of `entries` is still listed, and listed in the file.
  bool StillLists(const BlockEntries& entries);

  // How often, as far as this process has noticed, another process has moved the generation.
  uint64_t ExternalChanges();

  const std::shared_ptr<OsFile>& File() const { return file_; }

 private:
  // What reading the list gave.
  struct Reading {
    enum class Outcome { Complete, BadEntry, Unreadable };
    Outcome outcome = Outcome::Complete;
    std::shared_ptr<ManifestList> list = std::make_shared<ManifestList>();
  };

  Manifest(std::shared_ptr<OsFile> file, uint8_t* header, const Diagnostics& diagnostics);

  static uint32_t CreateInPlace(OsFile& file, uint64_t* size, const Diagnostics& diagnostics);
  uint32_t VerifyAtOpen() const;
  void Attach(bool isNewFile);
  bool ReadHeader(ManifestHeader* header) const;
  uint32_t Load(ManifestListPointer* list);
  bool TryLoadUnlocked(ManifestListPointer* list);
  uint32_t LoadAtOpen();
  uint32_t StatusOf(const Reading& reading) const;
  Reading ReadList(const ManifestHeader& header) const;
  enum class PendingRewrite { No, Yes, Unknown };  // Unknown: something can't be read
  PendingRewrite FindPendingRewrite(const ManifestHeader& header, ManifestJournal* journal) const;
  uint32_t PrepareChange(ManifestHeader* header, ManifestListPointer* list);
  uint32_t RecoverRewrite();
  uint32_t OverwriteEntries(const ManifestJournal& journal, const std::vector<uint8_t>& old, bool* restored);
  bool ReadEntryBytes(uint64_t end, std::vector<uint8_t>* bytes) const;
  void PublishGeneration(ManifestHeader header, uint32_t generation);

  std::shared_ptr<OsFile> file_;  // tracks the mapping
  uint8_t* header_;               // the mapped header
  ManifestSharedState* state_;
  const Diagnostics& diagnostics_;
};

}  // namespace Kestrun
