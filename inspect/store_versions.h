// inspect/store_versions.h: every version of every key that the files of a store hold, in
// the order of the keys.
//
// It reads what can be read: records after a broken one, the sound entries of a block that is damaged in
// part, blocks of any page size. Memory stays bounded by the log and the number of blocks.
//
// Nothing is opened for writing and no lock is taken.
//
// Ownership: owns its files.
// Threads:   one at a time.
// Failure:   Open says why; what can't be read is counted in its source.
// Units:     times are seconds since the Unix epoch, sizes bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Kestrun::Inspect {

// A file that entries are read from: the log or a block.
struct VersionSource {
  std::string name;  // of the block, or of the file of a log
  bool isLog = false;
  bool isPutAside =
      false;  // what a store put aside of a log that was damaged; it counts as a block that is not listed
  bool listed = false;   // in a manifest that decides which blocks count
  bool present = false;  // as a file that can be opened
  bool left = false;     // a block that does not count, and is not read
  uint64_t fileSize = 0;
  uint64_t entries = 0;      // sound entries
  uint64_t unreadable = 0;   // entries that are damaged or missing
  bool mayLackMore = false;  // how many more than those is not known
  std::string damage;        // the first one; empty when there is none
};

struct VersionView {
  std::string_view key;
  size_t source = 0;  // its number in Sources
  uint64_t valueOffset = 0;
  uint32_t valueSize = 0;
  bool deleted = false;
  uint64_t timestamp = 0;
  uint32_t ttl = 0;
};

struct VersionOptions {
  uint64_t pageSize = 0;   // of the blocks; 0 finds it out
  bool allBlocks = false;  // blocks that the manifest does not list count, too
};

class StoreVersions {
 public:
  // Opens what there is of the store in `directory`. Null when the directory can't be read or holds no part
  // of a store, with the reason in `*why`.
  static std::unique_ptr<StoreVersions> Open(const std::string& directory, const VersionOptions& options,
                                             std::string* why);
  ~StoreVersions();
  StoreVersions(const StoreVersions&) = delete;
  StoreVersions& operator=(const StoreVersions&) = delete;

  // Goes to the next key; false when there is none. `*versions` are those of the key, the newest first; they
  // are valid until the next call. Newest is
  //
  // - what stands furthest in the log,
  // - then, where the manifest decides, what stands in the block that is listed last,
  // - else what was written last, and of the same second what stands in the block that a sound manifest lists
  //   last, then what stands in the youngest file.
  bool NextKey(std::vector<VersionView>* versions);
  // Reads up to `most` bytes of the value of one of them. False when it can't be read or is not what was
  // written, which only reading all of it tells; the source counts it.
  bool ReadValue(const VersionView& version, std::string* value, uint64_t most = UINT64_MAX);

  const std::vector<VersionSource>& Sources() const { return sources_; }
  // The manifest is sound, so that it decides which blocks count.
  bool ManifestDecides() const { return manifestDecides_; }
  // Why it does not; empty when it does.
  const std::string& ManifestDamage() const { return manifestDamage_; }

 private:
  class Stream;
  class LogStream;
  class BlockStream;

  StoreVersions() = default;
  void AddLog(const std::string& directory);
  void AddLogFile(const std::string& path, VersionSource source);
  void AddPutAside(const std::string& directory, const std::string& name);
  void AddLeft(const std::string& name, bool isPutAside);
  void AddBlock(const std::string& directory, const std::string& name, uint64_t pageSize, bool listed);
  bool IsNewer(const VersionView& a, const VersionView& b) const;

  std::vector<VersionSource> sources_;
  std::vector<std::unique_ptr<Stream>> streams_;  // by source; null where there is nothing to read
  std::vector<uint64_t> modified_;                // by source, of the file, in nanoseconds
  std::vector<size_t> heap_;                      // sources by the key that they stand at
  std::vector<size_t> at_;                        // sources that gave the current key
  std::string key_;
  bool manifestDecides_ = false;
  bool positionDecides_ = false;  // the place in the manifest's list tells which block is newer
  std::string manifestDamage_;
};

}  // namespace Kestrun::Inspect
