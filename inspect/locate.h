// inspect/locate.h: in which file of a store the newest entry of a key lies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Kestrun::Inspect {

struct EntryPlace {
  std::string file;  // its name in the directory
  uint32_t valueOffset = 0;
  uint32_t valueSize = 0;
  bool deleted = false;
  uint64_t timestamp = 0;  // seconds since the Unix epoch
  uint32_t ttl = 0;        // seconds
};

// Looks for `key` as a store does: in the log, then in the listed blocks, the newest first. Empty when it is
// in none of them; what is damaged counts as without the key. `pageSize` is that of the machine that wrote
// the blocks; 0 finds it out.
std::optional<EntryPlace> LocateKey(const std::string& directory, const std::string& key,
                                    uint64_t pageSize = 0);

}  // namespace Kestrun::Inspect
