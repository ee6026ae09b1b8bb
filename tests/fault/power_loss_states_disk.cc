#include "tests/fault/power_loss_states_disk.h"

#include <algorithm>
#include <functional>
#include <set>

#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

uint64_t HashOf(const std::string& bytes) {
  return std::hash<std::string>()(bytes);
}

std::string ParentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

}  // namespace

void Disk::Apply(const Event& event) {
  for (const Change& change : event) {
    switch (change.kind) {
      case Change::Kind::SyncFile:
        Settle([&](const Item& item) { return item.kind != Change::Kind::Name && item.file == change.file; });
        break;
      case Change::Kind::SyncPages:
        for (uint64_t page = change.number; page < change.end; ++page) {
          const auto found = pages_.find({change.file, page});
          if (found == pages_.end()) continue;
          std::vector<Version>& versions = items_[found->second].versions;
          versions.erase(versions.begin(), versions.end() - 1);
        }
        break;
      case Change::Kind::SyncNames:
        Settle([&](const Item& item) {
          return item.kind == Change::Kind::Name && ParentOf(item.path) == change.path;
        });
        break;
      default:
        AddVersion(change);
    }
  }
}

template <typename Wanted>
void Disk::Settle(Wanted wanted) {
  for (Item& item : items_) {
    if (wanted(item)) item.versions.erase(item.versions.begin(), item.versions.end() - 1);
  }
}

void Disk::AddVersion(const Change& change) {
  size_t* slot = nullptr;
  int64_t number = 0;
  int64_t initial = 0;
  uint64_t hash = 0;
  bool isNew = false;
  if (change.kind == Change::Kind::Page) {
    const auto [position, added] = pages_.try_emplace({change.file, change.number}, items_.size());
    slot = &position->second;
    isNew = added;
    hash = change.bytes == nullptr ? 0 : HashOf(*change.bytes);
  } else if (change.kind == Change::Kind::Size) {
    const auto [position, added] = sizes_.try_emplace(change.file, items_.size());
    slot = &position->second;
    isNew = added;
    number = static_cast<int64_t>(change.number);
  } else {
    const auto [position, added] = names_.try_emplace(change.path, items_.size());
    slot = &position->second;
    isNew = added;
    number = change.file;
    initial = kNoFile;
  }
  if (isNew) items_.push_back({change.kind, change.file, change.path, {{initial, nullptr, 0}}});
  items_[*slot].versions.push_back({number, change.bytes, hash});
}

Disk::Choice Disk::Newest() const {
  Choice choice;
  for (const Item& item : items_) choice.push_back(static_cast<uint32_t>(item.versions.size() - 1));
  return choice;
}

std::vector<size_t> Disk::Unsettled() const {
  std::set<int> named;
  for (const auto& [path, item] : names_) {
    for (const Version& version : items_[item].versions) named.insert(static_cast<int>(version.number));
  }
  std::vector<size_t> unsettled;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (items_[i].versions.size() < 2) continue;
    if (items_[i].kind == Change::Kind::Name || named.count(items_[i].file) != 0) unsettled.push_back(i);
  }
  return unsettled;
}

Disk::File Disk::Show(int file, const Choice& choice) const {
  File shown;
  if (const auto size = sizes_.find(file); size != sizes_.end()) {
    shown.size = static_cast<uint64_t>(items_[size->second].versions[choice[size->second]].number);
  }
  for (auto page = pages_.lower_bound({file, 0}); page != pages_.end() && page->first.first == file; ++page) {
    const Version& version = items_[page->second].versions[choice[page->second]];
    if (page->first.second * kDiskPage < shown.size && version.bytes != nullptr) {
      shown.pages[page->first.second] = &version;
    }
  }
  return shown;
}

// A directory's name sorts before the names in it.
std::map<std::string, int> Disk::Names(const Choice& choice) const {
  std::map<std::string, int> names;
  for (const auto& [path, item] : names_) {
    const int file = static_cast<int>(items_[item].versions[choice[item]].number);
    const std::string parent = ParentOf(path);
    if (file == kNoFile || (!parent.empty() && names.count(parent) == 0)) continue;
    names[path] = file;
  }
  return names;
}

uint64_t Disk::Hash(const Choice& choice) const {
  uint64_t hash = 0;
  const auto add = [&hash](uint64_t number) { hash = Mix(hash ^ number); };
  for (const auto& [path, file] : Names(choice)) {
    add(HashOf(path));
    if (file == kDirectory) continue;
    const File shown = Show(file, choice);
    add(shown.size);
    for (const auto& [page, version] : shown.pages) {
      add(page);
      const uint64_t left = shown.size - page * kDiskPage;
      add(left >= kDiskPage ? version->hash : HashOf(version->bytes->substr(0, left)));
    }
  }
  return hash;
}

DiskImage Disk::Image(const Choice& choice) const {
  DiskImage image;
  for (const auto& [path, file] : Names(choice)) {
    if (file == kDirectory) {
      image.directories.push_back(path);
      continue;
    }
    const File shown = Show(file, choice);
    std::string bytes(shown.size, '\0');
    for (const auto& [page, version] : shown.pages) {
      const size_t count = std::min<size_t>(kDiskPage, shown.size - page * kDiskPage);
      bytes.replace(page * kDiskPage, count, *version->bytes, 0, count);
    }
    image.files[path] = std::move(bytes);
  }
  return image;
}

}  // namespace Kestrun::Testing
