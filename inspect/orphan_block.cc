#include "inspect/orphan_block.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "base/clock.h"
#include "inspect/escape.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

constexpr size_t kMaxLogEntries = size_t{1} << 22;
constexpr size_t kMaxOpenBlocks = 64;

}  // namespace

void LeftoverCheck::AddLogEntry(const std::string& key, uint64_t timestamp) {
  const size_t hash = std::hash<std::string>{}(key);
  const auto known = logTimes_.find(hash);
  if (known != logTimes_.end()) {
    known->second = std::max(known->second, timestamp);
  } else if (logTimes_.size() < kMaxLogEntries) {
    logTimes_.emplace(hash, timestamp);
  }
}

void LeftoverCheck::AddBlock(const std::string& name, bool listed) {
  others_.push_back({name, listed, nullptr, nullptr});
}

void LeftoverCheck::Run(const std::string& name, VerifyReport* report) {
  const std::string fileName = name + kBlockFileSuffix;
  std::string why;
  const std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(BlockPath(directory_, name), &why);
  if (!file) {
    report->Note(fileName, 0, "not in the manifest, and can't be read: " + why);
    return;
  }
  ++report->blocks;
  BlockFile block(*file, pageSize_);
  const std::string incomplete =
      "not in the manifest and not complete, as a flush or compaction that was broken off leaves it";
  if (!block.Usable()) {
    report->Note(fileName, 0, incomplete);
    return;
  }
  for (uint64_t i = 0; i < block.EntryCount(); ++i) {
    BlockDataEntry entry;
    bool checksumMatches = false;
    std::string key;
    if (!block.ReadEntry(i, &entry, &checksumMatches) || !checksumMatches || !block.ReadKey(entry, &key)) {
      report->Note(fileName, block.EntryOffset(i), incomplete);
      return;
    }
    ++report->blockEntries;
    if (entry.deleted != 0 || !IsAlive(entry.timestamp, entry.ttl, now_)) continue;
    if (!IsElsewhere(key, entry.timestamp, name)) {
      report->Damage(fileName, block.EntryOffset(i),
                     "not in the manifest, and holds an entry of \"" + Printable(key) +
                         "\" that neither the log nor a listed block has");
      return;
    }
  }
  report->Note(fileName, 0,
               "not in the manifest; all that lives in it is also in the log or in a listed block");
}

bool LeftoverCheck::IsElsewhere(const std::string& key, uint64_t timestamp, const std::string& name) {
  const auto logged = logTimes_.find(std::hash<std::string>{}(key));
  if (logged != logTimes_.end() && logged->second >= timestamp) return true;
  // Newest blocks first.
  return std::any_of(others_.rbegin(), others_.rend(),
                     [&](Other& other) { return other.name != name && Holds(other, key, timestamp, name); });
}

bool LeftoverCheck::Holds(Other& other, const std::string& key, uint64_t timestamp, const std::string& name) {
  if (other.block == nullptr) {
    std::string why;
    std::optional<ReadOnlyFile> file = ReadOnlyFile::Open(BlockPath(directory_, other.name), &why);
    if (!file) return false;
    if (open_.size() == kMaxOpenBlocks) {
      Other& oldest = others_[open_.front()];
      oldest.block.reset();
      oldest.file.reset();
      open_.pop_front();
    }
    other.file = std::make_unique<ReadOnlyFile>(std::move(*file));
    other.block = std::make_unique<BlockFile>(*other.file, pageSize_);
    open_.push_back(static_cast<size_t>(&other - others_.data()));
  }
  const std::optional<BlockDataEntry> entry = other.block->Find(key);
  if (!entry || entry->timestamp < timestamp) return false;
  if (other.listed || entry->timestamp > timestamp || entry->deleted != 0) return true;
  // Two unlisted blocks that hold the same entry must not vouch for each other.
  return other.name > name;
}

}  // namespace Kestrun::Inspect
