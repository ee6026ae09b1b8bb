#include "inspect/store_stat.h"

#include <algorithm>
#include <optional>
#include <set>

#include "base/clock.h"
#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/block_file.h"
#include "inspect/escape.h"
#include "inspect/schema_lines.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

LogStat StatLog(const std::string& path, uint64_t now) {
  LogStat stat;
  std::string why;
  const std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(path, &why);
  if (!file) {
    stat.damage = why;
    return stat;
  }
  stat.present = true;
  stat.fileSize = file->Size();
  FileSource source(*file);
  const WalHeaderView header = ReadWalHeader(source);
  if (!header.Usable()) {
    stat.damage = !header.complete          ? "cut short inside its header"
                  : !header.checksumMatches ? "its header fails its checksum"
                                            : "not a file of a store";
    return stat;
  }
  stat.used = header.header.used;
  WalReader reader(source, stat.used, file->Size());
  while (reader.Next()) {
    const WalRecord& entry = reader.Record().header;
    stat.counts.Add(entry.deleted != 0, entry.timestamp, entry.ttl, entry.valueSize, now);
  }
  if (reader.End() != WalEnd::Complete || reader.Offset() != stat.used) {
    stat.damage = "unreadable from offset " + std::to_string(reader.Offset());
  }
  return stat;
}

void StatBlock(const std::string& directory, uint64_t pageSize, uint64_t now, BlockStat* stat) {
  std::string why;
  const std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(BlockPath(directory, stat->name), &why);
  if (!file) {
    stat->damage = why;
    return;
  }
  stat->present = true;
  stat->fileSize = file->Size();
  BlockFile block(*file, pageSize);
  if (!block.Usable()) stat->damage = "its headers are damaged";
  for (uint64_t i = 0; i < block.EntryCount(); ++i) {
    BlockDataEntry entry;
    bool checksumMatches = false;
    if (!block.ReadEntry(i, &entry, &checksumMatches) || !checksumMatches) {
      stat->damage = "entry " + std::to_string(i) + " is damaged";
      return;
    }
    stat->counts.Add(entry.deleted != 0, entry.timestamp, entry.ttl, entry.valueSize, now);
  }
}

void StatManifest(const std::string& path, StoreStat* stat, std::set<std::string>* listed) {
  std::string why;
  const std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(path, &why);
  if (!file) {
    stat->manifestDamage = why;
    return;
  }
  stat->manifestPresent = true;
  stat->totalBytes += file->Size();
  FileSource source(*file);
  const ManifestHeaderView header = ReadManifestHeader(source);
  if (!header.Usable()) {
    stat->manifestDamage = !header.complete          ? "cut short inside its header"
                           : !header.checksumMatches ? "its header fails its checksum"
                                                     : "not a file of a store";
    return;
  }
  stat->generation = header.header.generation;
  ManifestReader reader(source, file->Size());
  while (stat->blocks.size() < kMaxBlocks && reader.Next(true)) {
    BlockStat block;
    block.name = reader.Entry().name;
    block.listed = true;
    block.filterBytes = reader.Entry().entry.filterSize;
    if (!IsBlockName(block.name)) block.damage = "not the name of a block";
    if (!listed->insert(block.name).second) block.damage = "listed twice";
    stat->blocks.push_back(block);
  }
  if (reader.End() != ManifestEnd::Complete || reader.Offset() != file->Size()) {
    stat->manifestDamage = "unreadable from offset " + std::to_string(reader.Offset());
  }
}

uint64_t CountRecordTypes(const std::string& path, StoreStat* stat) {
  std::string why;
  const std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(path, &why);
  if (!file) return 0;
  stat->totalBytes += file->Size();
  std::set<uint16_t> ids;
  ScanSchema(*file, [&ids](const SchemaLineView& line) {
    if (line.IsRecordType()) ids.insert(line.id);
    return true;
  });
  return ids.size();
}

}  // namespace

void EntryCounts::Add(bool deleted, uint64_t timestamp, uint32_t ttl, uint32_t valueSize, uint64_t now) {
  if (entries == 0) {
    oldest = newest = timestamp;
  }
  ++entries;
  if (deleted) {
    ++deletions;
  } else if (!IsAlive(timestamp, ttl, now)) {
    ++expired;
  }
  valueBytes += valueSize;
  oldest = std::min(oldest, timestamp);
  newest = std::max(newest, timestamp);
}

uint64_t StoreStat::ListedBlocks() const {
  return static_cast<uint64_t>(
      std::count_if(blocks.begin(), blocks.end(), [](const BlockStat& block) { return block.listed; }));
}

uint64_t StoreStat::ListedBlockBytes() const {
  uint64_t bytes = 0;
  for (const BlockStat& block : blocks) {
    if (block.listed) bytes += block.fileSize;
  }
  return bytes;
}

bool CollectStat(const std::string& directory, uint64_t pageSize, uint64_t now, StoreStat* stat,
                 std::string* why) {
  const std::optional<StoreDirectory> files = ListStore(directory, why);
  if (!files) return false;
  if (!files->HoldsPartOfStore()) {
    *why = "the directory holds neither a log nor a manifest";
    return false;
  }
  stat->log = StatLog(LogPath(directory), now);

  std::set<std::string> listed;
  StatManifest(ManifestPath(directory), stat, &listed);
  for (const std::string& name : files->blocks) {
    if (listed.count(name) == 0) {
      BlockStat block;
      block.name = name;
      stat->blocks.push_back(block);
    }
  }
  stat->totalBytes += stat->log.fileSize;
  for (BlockStat& block : stat->blocks) {
    if (block.damage.empty()) StatBlock(directory, pageSize, now, &block);
    stat->totalBytes += block.fileSize;
  }
  stat->recordTypes = CountRecordTypes(SchemaPath(directory), stat);
  return true;
}

}  // namespace Kestrun::Inspect
