#include "inspect/space_stat.h"

#include <algorithm>

#include "base/clock.h"
#include "inspect/store_versions.h"
#include "inspect/type_guess.h"

namespace Kestrun::Inspect {
namespace {

constexpr size_t kMaxPrefixes = 2000;
constexpr size_t kShownPrefixes = 20;
constexpr size_t kMaxPrefix = 32;

std::vector<NamedSize> Largest(const std::map<std::string, CountAndBytes>& sizes, size_t most) {
  std::vector<NamedSize> list;
  for (const auto& [name, size] : sizes) list.push_back({name, size});
  std::sort(list.begin(), list.end(), [](const NamedSize& a, const NamedSize& b) {
    return a.size.bytes != b.size.bytes ? a.size.bytes > b.size.bytes : a.name < b.name;
  });
  CountAndBytes rest;
  while (list.size() > most) {
    rest.count += list.back().size.count;
    rest.bytes += list.back().size.bytes;
    list.pop_back();
  }
  if (rest.count != 0) list.push_back({"others", rest});
  return list;
}

class SpaceCounter {
 public:
  SpaceCounter(const std::string& directory, uint64_t now, SpaceStat* stat) : now_(now), stat_(stat) {
    std::string damage;
    types_ = ReadRecordTypeTexts(directory, &damage);
  }

  void Run(StoreVersions* versions) {
    blocks_.resize(versions->Sources().size());
    std::vector<VersionView> group;
    while (versions->NextKey(&group)) Count(versions, group);
    Finish(*versions);
  }

 private:
  void Count(StoreVersions* versions, const std::vector<VersionView>& group) {
    const VersionView& newest = group.front();
    const std::string key(newest.key);
    for (const VersionView& version : group) {
      BlockSpace& block = blocks_[version.source];
      if (block.firstKey.empty()) block.firstKey = key;
      block.lastKey = key;
      if (&version != &newest) {
        ++block.hidden;
        stat_->overwritten.Add(key.size() + version.valueSize);
      }
    }
    const uint64_t size = key.size() + newest.valueSize;
    if (newest.deleted) {
      stat_->deleted.Add(size);
    } else if (!IsAlive(newest.timestamp, newest.ttl, now_)) {
      stat_->expired.Add(size);
    } else {
      stat_->live.Add(size);
      byType_[TypeOf(versions, newest)].Add(size);
      const std::string prefix = PrefixOf(key);
      const bool room = byPrefix_.size() < kMaxPrefixes || byPrefix_.count(prefix) != 0;
      byPrefix_[room ? prefix : "others"].Add(size);
    }
  }

  std::string TypeOf(StoreVersions* versions, const VersionView& version) {
    if (types_.empty() || version.valueSize < 3) return std::string();
    std::string head;
    if (!versions->ReadValue(version, &head, 2)) return std::string();
    const auto id =
        static_cast<uint16_t>(static_cast<unsigned char>(head[0]) | static_cast<unsigned char>(head[1]) << 8);
    const auto type = types_.find(id);
    return type == types_.end() ? std::string() : type->second;
  }

  void Finish(const StoreVersions& versions) {
    for (size_t i = 0; i < blocks_.size(); ++i) {
      const VersionSource& source = versions.Sources()[i];
      stat_->unreadable += source.unreadable;
      stat_->mayLackMore = stat_->mayLackMore || source.mayLackMore;
      if (source.isLog || source.isPutAside || source.left) continue;
      BlockSpace block = blocks_[i];
      block.name = source.name;
      for (size_t j = 0; j < blocks_.size(); ++j) {
        if (j == i || versions.Sources()[j].isLog || versions.Sources()[j].isPutAside ||
            versions.Sources()[j].left)
          continue;
        const bool meets = !blocks_[j].lastKey.empty() && !block.lastKey.empty() &&
                           blocks_[j].firstKey <= block.lastKey && block.firstKey <= blocks_[j].lastKey;
        if (meets) ++block.overlaps;
      }
      stat_->blocks.push_back(block);
    }
    stat_->types = Largest(byType_, SIZE_MAX);
    stat_->prefixes = Largest(byPrefix_, kShownPrefixes);
  }

  uint64_t now_;
  SpaceStat* stat_;
  std::map<uint16_t, std::string> types_;
  std::map<std::string, CountAndBytes> byType_;
  std::map<std::string, CountAndBytes> byPrefix_;
  std::vector<BlockSpace> blocks_;  // by source
};

}  // namespace

std::string PrefixOf(std::string_view key) {
  const size_t separator = key.substr(0, kMaxPrefix).find_first_of("-:/._#| ", 1);
  if (separator != std::string_view::npos) return std::string(key.substr(0, separator + 1));
  return std::string();
}

bool CollectSpace(const std::string& directory, uint64_t pageSize, uint64_t now, SpaceStat* stat,
                  std::string* why) {
  VersionOptions options;
  options.pageSize = pageSize;
  const auto versions = StoreVersions::Open(directory, options, why);
  if (versions == nullptr) return false;
  SpaceCounter(directory, now, stat).Run(versions.get());
  return true;
}

}  // namespace Kestrun::Inspect
