// inspect/space_stat.h: how big a store is, and why: which versions of which keys take up its bytes.
//
// It reads every key, and of each value the two bytes that tell its type. Memory stays bounded.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Kestrun::Inspect {

struct CountAndBytes {
  uint64_t count = 0;
  uint64_t bytes = 0;  // of keys and values

  void Add(uint64_t size) {
    ++count;
    bytes += size;
  }
};

struct NamedSize {
  std::string name;
  CountAndBytes size;
};

// How a block lies among the others.
struct BlockSpace {
  std::string name;
  std::string firstKey;
  std::string lastKey;
  uint64_t overlaps = 0;  // other blocks whose range of keys meets this one's
  uint64_t hidden = 0;    // entries that a newer entry or tombstone hides
};

struct SpaceStat {
  CountAndBytes live;
  CountAndBytes overwritten;  // every version that a newer entry or tombstone hides
  CountAndBytes deleted;      // tombstones that nothing hides
  CountAndBytes expired;
  uint64_t unreadable = 0;       // entries that are damaged or missing
  bool mayLackMore = false;      // how many more than those is not known
  std::vector<NamedSize> types;  // live entries by record type, the largest first; "" is no record
  std::vector<NamedSize>
      prefixes;  // live entries by what stands before the first separator, the largest first
  std::vector<BlockSpace> blocks;

  // Bytes that a compaction gives back.
  uint64_t Reclaimable() const { return overwritten.bytes + deleted.bytes + expired.bytes; }
};

// Looks at the files in `directory`; `now` tells what has expired. False when the directory can't be read or
// holds no part of a store, with the reason in `*why`.
bool CollectSpace(const std::string& directory, uint64_t pageSize, uint64_t now, SpaceStat* stat,
                  std::string* why);

// The prefix that a key counts under: up to and with its first separator, one of - : / . _ # | and a blank,
// when that stands among its first 32 bytes; else none.
std::string PrefixOf(std::string_view key);

}  // namespace Kestrun::Inspect
