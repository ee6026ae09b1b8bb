// What a disk may hold after a loss of power.
//
// The model is fed with everything that a program does to its files, in order. It keeps each page of 4 KiB,
// each file's size and each name of a directory as an item of its own, with every version since the item was
// last forced to the disk: as far as POSIX goes, any of them may be what is found after the loss, whatever
// the others show. Real file systems leave out most of these states.
//
//   page, size  settled by fsync of the file; the pages of a mapping also by msync
//   name        settled by fsync of the directory, not of the file
//
// The first version is what is certainly on the disk: zeros, no bytes, no such name for what is new.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Kestrun::Testing {

inline constexpr size_t kDiskPage = 4096;
using PageBytes = std::shared_ptr<const std::string>;  // kDiskPage bytes; null for zeros

inline constexpr int kNoFile = -1;
inline constexpr int kDirectory = -2;

struct Change {
  enum class Kind { Page, Size, Name, SyncFile, SyncPages, SyncNames };
  Kind kind;
  int file = kNoFile;   // Name: what the name leads to
  uint64_t number = 0;  // Page: which; Size: in bytes; SyncPages: the first
  uint64_t end = 0;     // SyncPages: one behind the last
  PageBytes bytes;      // Page
  std::string path;     // Name; SyncNames: the directory. Relative to the root of the disk, "" for the root
};
// What one system call, or the stores to mappings between two of them, did.
using Event = std::vector<Change>;

struct DiskImage {
  std::vector<std::string> directories;
  std::map<std::string, std::string> files;
};

class Disk {
 public:
  // For every item the version that is found; items are numbered in the order of their appearance.
  using Choice = std::vector<uint32_t>;

  void Apply(const Event& event);

  // Nothing that is unsettled arrived, or all of it.
  Choice Oldest() const { return Choice(items_.size(), 0); }
  Choice Newest() const;
  // The items that have more than one version and belong to a file that may be found under a name.
  std::vector<size_t> Unsettled() const;
  uint32_t Versions(size_t item) const { return static_cast<uint32_t>(items_[item].versions.size()); }

  // Equal for choices that leave the same files with the same bytes.
  uint64_t Hash(const Choice& choice) const;
  DiskImage Image(const Choice& choice) const;

 private:
  struct Version {
    int64_t number;  // a size or a file
    PageBytes bytes;
    uint64_t hash;
  };
  struct Item {
    Change::Kind kind;
    int file;
    std::string path;
    std::vector<Version> versions;
  };
  // One file as a choice shows it.
  struct File {
    uint64_t size = 0;
    std::map<uint64_t, const Version*> pages;
  };

  void AddVersion(const Change& change);
  template <typename Wanted>
  void Settle(Wanted wanted);
  File Show(int file, const Choice& choice) const;
  // The names that a choice shows, those in directories that it does not show left out.
  std::map<std::string, int> Names(const Choice& choice) const;

  std::vector<Item> items_;
  std::map<std::pair<int, uint64_t>, size_t> pages_;  // by file and page
  std::map<int, size_t> sizes_;
  std::map<std::string, size_t> names_;
};

}  // namespace Kestrun::Testing
