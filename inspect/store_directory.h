// inspect/store_directory.h: which files of a store lie in a directory.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Kestrun::Inspect {

// A hostile manifest can name far more blocks than there are files. Lists of them end here.
inline constexpr size_t kMaxBlocks = size_t{1} << 20;

// File names within the directory, each list in ascending order.
struct StoreDirectory {
  bool hasLog = false;
  bool hasManifest = false;
  bool hasSchema = false;
  bool hasUnfinishedManifest = false;
  std::vector<std::string> blocks;       // names of blocks: file names without their suffix
  std::vector<std::string> damagedLogs;  // files with what a store put aside of a damaged log
  std::vector<std::string> legacy;       // files of an earlier format, which a compaction removes
  std::vector<std::string> others;

  // A store can be opened without making it anew.
  bool HoldsStore() const { return hasLog && hasManifest; }
  bool HoldsPartOfStore() const { return hasLog || hasManifest; }
};

// Empty when the directory can't be read, with the reason in `*why`.
std::optional<StoreDirectory> ListStore(const std::string& directory, std::string* why);

std::string LogPath(const std::string& directory);
std::string ManifestPath(const std::string& directory);
std::string SchemaPath(const std::string& directory);
std::string BlockPath(const std::string& directory, const std::string& name);

}  // namespace Kestrun::Inspect
