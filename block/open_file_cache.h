// block/open_file_cache.h: reads many files with few descriptors.
//
// Ownership: the cache keeps the files used last open; a caller keeps the one that it got open.
// Threads:   one thread at a time.
// Failure:   a null file, when it can't be opened. May throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "storage/os_file.h"

namespace Kestrun {

class OpenFileCache {
 public:
  explicit OpenFileCache(size_t capacity) : capacity_(capacity) {}

  // The file at `path`, open for reading.
  std::shared_ptr<OsFile> Get(const std::string& path);

 private:
  using Files = std::list<std::pair<std::string, std::shared_ptr<OsFile>>>;

  size_t capacity_;
  Files files_;  // the one used last is in front
  std::unordered_map<std::string, Files::iterator> index_;
};

}  // namespace Kestrun
