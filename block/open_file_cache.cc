#include "block/open_file_cache.h"

#include "kestrun/status.h"

namespace Kestrun {

std::shared_ptr<OsFile> OpenFileCache::Get(const std::string& path) {
  if (const auto found = index_.find(path); found != index_.end()) {
    files_.splice(files_.begin(), files_, found->second);
    return files_.front().second;
  }
  // Room first, so that the number of open files is never exceeded.
  while (files_.size() >= capacity_) {
    index_.erase(files_.back().first);
    files_.pop_back();
  }
  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadOnly, &file) != kStatusOk) return nullptr;
  files_.emplace_front(path, file);
  index_[path] = files_.begin();
  return file;
}

}  // namespace Kestrun
