// Records what this process does to the files below one directory.
//
// It is the observer of the program's calls (tests/support/interposed_calls.h). Stores to shared mappings are
// found by comparing the mapped bytes before each call that changes files, and when TakeStores is called.
//
// Threads: one recorder at a time, and one thread while there is one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/fault/power_loss_states_disk.h"
#include "tests/support/interposed_calls.h"

namespace Kestrun::Testing {

class FileRecorder : public CallObserver {
 public:
  // `root` is an existing directory, empty or with the files of `start`, which count as settled.
  explicit FileRecorder(std::string root);
  FileRecorder(std::string root, const DiskImage& start);
  ~FileRecorder() override;
  FileRecorder(const FileRecorder&) = delete;
  FileRecorder& operator=(const FileRecorder&) = delete;

  // Records what was stored to mappings since the last event.
  void TakeStores();
  const std::vector<Event>& Events() const { return events_; }
  // How often a file of this name was forced to the disk.
  size_t SyncsOf(const std::string& name) const;
  // Calls that the recorder does not understand, for messages; empty when it has understood everything.
  const std::string& NotUnderstood() const { return notUnderstood_; }

 private:
  struct Handle {
    int file;  // kDirectory for a directory
    std::string path;
  };
  struct Mapping {
    const uint8_t* bytes;
    size_t length;
    int file;
    size_t offset;
  };

  bool Before(Call& call) override;
  void After(const Call& call, int64_t result) override;

  // `path` as it was given to the function. All after success, but for Closed, Unmapped and Unknown.
  void Opened(int descriptor, const char* path, int flags);
  void Closed(int descriptor);
  void Written(int descriptor, const void* bytes, size_t count, int64_t offset);
  void Cut(int descriptor, int64_t length);
  void Synced(int descriptor);
  void Linked(const char* oldPath, const char* newPath);
  void Unlinked(const char* path);
  void DirectoryMade(const char* path);
  void Mapped(const uint8_t* bytes, size_t length, int descriptor, int64_t offset);
  void Unmapped(const void* address);
  void SyncedMapping(const void* address, size_t length);
  void Unknown(const char* function, int descriptor);
  void Unknown(const char* function, const char* path);

  // True with the path relative to the root when it leads below it, or to it.
  bool IsOurs(const char* path, std::string* relative) const;
  const Handle* Find(int descriptor) const;
  void Add(Event event) {
    if (!event.empty()) events_.push_back(std::move(event));
  }
  void AddPages(int file, size_t begin, size_t end, Event* event) const;
  void Compare(const Mapping& mapping, Event* event);

  std::string root_;
  std::vector<Event> events_;
  std::vector<std::string> files_;  // what each file holds now
  std::map<std::string, int> names_;
  std::map<int, Handle> handles_;
  std::vector<Mapping> mappings_;
  std::map<std::string, size_t> syncs_;
  std::string notUnderstood_;
};

}  // namespace Kestrun::Testing
