#include "inspect/locate.h"

#include <vector>

#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/block_file.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

std::optional<EntryPlace> FindInLog(const std::string& directory, const std::string& key) {
  std::string why;
  const auto file = ReadOnlyFile::Open(LogPath(directory), &why);
  if (!file) return std::nullopt;
  FileSource source(*file);
  const WalHeaderView header = ReadWalHeader(source);
  if (!header.Usable()) return std::nullopt;
  std::optional<EntryPlace> place;
  WalReader reader(source, header.header.used, file->Size());
  while (reader.Next()) {
    if (reader.Record().key != key) continue;
    const WalRecord& entry = reader.Record().header;
    place = {kWalFileName,       entry.valueOffset, entry.valueSize,
             entry.deleted != 0, entry.timestamp,   entry.ttl};
  }
  return place;
}

std::vector<std::string> ListedBlocks(const std::string& directory) {
  std::vector<std::string> names;
  std::string why;
  const auto file = ReadOnlyFile::Open(ManifestPath(directory), &why);
  if (!file) return names;
  FileSource source(*file);
  if (!ReadManifestHeader(source).Usable()) return names;
  ManifestReader reader(source, file->Size());
  while (names.size() < kMaxBlocks && reader.Next(true)) {
    if (IsBlockName(reader.Entry().name)) names.push_back(reader.Entry().name);
  }
  return names;
}

}  // namespace

std::optional<EntryPlace> LocateKey(const std::string& directory, const std::string& key, uint64_t pageSize) {
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
