#include "inspect/locate.h"

#include <vector>

#include "inspect/block_file.h"
#include "inspect/log_file.h"
#include "inspect/manifest_file.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

std::optional<EntryPlace> FindInLog(const std::string& directory, const std::string& key) {
  std::string why;
  const auto file = ReadOnlyFile::Open(LogPath(directory), &why);
  if (!file) return std::nullopt;
  const LogHeaderView header = ReadLogHeader(*file);
  if (!header.Usable()) return std::nullopt;
  std::optional<EntryPlace> place;
  ScanLog(*file, header.header.used, [&](const LogRecordView& record) {
    const WalRecord& entry = record.header;
    if (record.key == key) {
      place = {kWalFileName,       entry.valueOffset, entry.valueSize,
               entry.deleted != 0, entry.timestamp,   entry.ttl};
    }
    return true;
  });
  return place;
}

std::vector<std::string> ListedBlocks(const std::string& directory) {
  std::vector<std::string> names;
  std::string why;
  const auto file = ReadOnlyFile::Open(ManifestPath(directory), &why);
  if (!file || !ReadManifestHeader(*file).Usable()) return names;
  ScanManifest(*file, [&names](const ManifestRecordView& record) {
    if (record.IsValidName()) names.push_back(record.name);
    return names.size() < kMaxBlocks;
  });
  return names;
}

}  // namespace

std::optional<EntryPlace> LocateKey(const std::string& directory, uint64_t pageSize, const std::string& key) {
  if (auto place = FindInLog(directory, key)) return place;
  const std::vector<std::string> names = ListedBlocks(directory);
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    std::string why;
    const auto file = ReadOnlyFile::Open(BlockPath(directory, *name), &why);
    if (!file) continue;
    if (const auto entry = BlockFile(*file, pageSize).Find(key)) {
      return EntryPlace{*name + kBlockFileSuffix, entry->valueOffset, entry->valueSize,
                        entry->deleted != 0,      entry->timestamp,   entry->ttl};
    }
  }
  return std::nullopt;
}

}  // namespace Kestrun::Inspect
