// inspect/orphan_block.h: tells a block file that merely was left behind from data that the manifest lost.
//
// A process that is killed between writing a block and recording it, or between recording a merged block and
// deleting the old ones, leaves a block file that the manifest does not list. The store loses nothing by it
// when every live entry of the file stands in the log or in another block at least as new.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "inspect/block_file.h"
#include "inspect/read_only_file.h"
#include "inspect/store_verify.h"

namespace Kestrun::Inspect {

class LeftoverCheck {
 public:
  LeftoverCheck(std::string directory, uint64_t pageSize, uint64_t now)
      : directory_(std::move(directory)), pageSize_(pageSize), now_(now) {}

  // What the store has. A log of more records than are remembered makes no file a mere leftover.
  void AddLogEntry(const std::string& key, uint64_t timestamp);
  void AddBlock(const std::string& name, bool listed);

  // Reports on the unlisted block `name`, which AddBlock knows.
  void Run(const std::string& name, VerifyReport* report);

 private:
  struct Other {
    std::string name;
    bool listed;
    std::unique_ptr<ReadOnlyFile> file;
    std::unique_ptr<BlockFile> block;
  };

  bool IsElsewhere(const std::string& key, uint64_t timestamp, const std::string& name);
  bool Holds(Other& other, const std::string& key, uint64_t timestamp, const std::string& name);

  std::string directory_;
  uint64_t pageSize_;
  uint64_t now_;
  std::unordered_map<size_t, uint64_t> logTimes_;  // newest time of writing by the hash of the key
  std::vector<Other> others_;
  std::deque<size_t> open_;  // indices into others_, in the order of their opening
};

}  // namespace Kestrun::Inspect
