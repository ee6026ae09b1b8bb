// engine/pending_block_file.h: the file of a block that is being written.
#pragma once

#include <cstdint>
#include <string>

namespace Kestrun {

// Removes the file again unless it is committed: a block that was not written whole can never be read and
// only takes up space. Operations may throw std::bad_alloc.
class PendingBlockFile {
 public:
  PendingBlockFile() = default;
  ~PendingBlockFile();
  PendingBlockFile(const PendingBlockFile&) = delete;
  PendingBlockFile& operator=(const PendingBlockFile&) = delete;

  // Draws a name that no file in the directory has, and claims it with an empty file. Where the store is
  // `shared` with other processes the name is also none that they come to later, when the file may be gone
  // again: they may have it in their caches or be merging it. kStatusOpenFailed when the names drawn are all
  // taken.
  uint32_t Create(const std::string& directory, bool shared);

  const std::string& Name() const { return name_; }
  const std::string& Path() const { return path_; }
  void Commit() { committed_ = true; }
  void Abandon() { committed_ = false; }

 private:
  std::string name_;
  std::string path_;
  bool committed_ = true;  // nothing to remove before Create
};

}  // namespace Kestrun
