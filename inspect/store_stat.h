// inspect/store_stat.h: what a store holds, told from its files.
//
// A store that is being written while it is looked at gives figures of different moments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Kestrun::Inspect {

// Counts over the entries of one file. Times are seconds since the Unix epoch.
struct EntryCounts {
  uint64_t entries = 0;
  uint64_t deletions = 0;  // deletion markers among them
  uint64_t expired = 0;    // entries that are not deletion markers and whose time is over
  uint64_t valueBytes = 0;
  uint64_t oldest = 0;  // time of writing; both 0 without entries
  uint64_t newest = 0;

  void Add(bool deleted, uint64_t timestamp, uint32_t ttl, uint32_t valueSize, uint64_t now);
};

struct LogStat {
  bool present = false;
  uint64_t fileSize = 0;
  uint64_t used = 0;  // bytes from the start of the file that are taken, as the header says
  EntryCounts counts;
  std::string damage;  // why the counts are not whole; empty when they are
};

struct BlockStat {
  std::string name;
  bool listed = false;   // in the manifest
  bool present = false;  // as a file
  uint64_t fileSize = 0;
  uint64_t filterBytes = 0;  // in the manifest
  EntryCounts counts;
  std::string damage;
};

struct StoreStat {
  LogStat log;
  bool manifestPresent = false;
  uint32_t generation = 0;
  std::string manifestDamage;
  std::vector<BlockStat> blocks;  // the listed ones, oldest first, then the others by name
  uint64_t recordTypes = 0;
  uint64_t totalBytes = 0;  // of the files named here

  uint64_t ListedBlocks() const;
  uint64_t ListedBlockBytes() const;
};

// Looks at the files in `directory`; `now` tells what has expired. False when the directory can't be read or
// holds neither log nor manifest, with the reason in `*why`.
bool CollectStat(const std::string& directory, uint64_t pageSize, uint64_t now, StoreStat* stat,
                 std::string* why);

}  // namespace Kestrun::Inspect
