#include "record/record_meta_registry.h"

#include <pthread.h>
#include <sys/stat.h>

#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "record/record_meta_parser.h"

namespace Kestrun {
namespace {

// What changes with a file's content.
struct FileState {
  int64_t size;
  struct timespec modified;
  struct timespec changed;
};

bool IsSameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool IsSameState(const FileState& a, const FileState& b) {
  return a.size == b.size && IsSameTime(a.modified, b.modified) && IsSameTime(a.changed, b.changed);
}

// Nothing when another file, or none, stands at `path` by now.
std::optional<FileState> StateOf(const std::string& path, const InodeId& id) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  if (info.st_dev != id.device || info.st_ino != id.inode) return std::nullopt;
  return FileState{info.st_size, info.st_mtim, info.st_ctim};
}

}  // namespace

// Guarded by the registry's mutex.
struct RecordMetaSet {
  std::unordered_map<std::string, std::unique_ptr<RecordMeta>> metas;  // under their line of the file
  uint32_t handles = 0;
  std::optional<FileState> leftBehind;  // by the last handle
};

namespace {

class Registry {
 public:
  // Never destroyed: records may outlive the static objects of the library.
  static Registry& Instance() {
    static Registry* const registry = new Registry;
    return *registry;
  }

  std::shared_ptr<RecordMetaSet> Acquire(const std::string& path, const InodeId& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<RecordMetaSet>& set = sets_[id];
    if (set != nullptr && set->handles == 0 && !IsAsItWasLeft(*set, path, id)) {
      if (!set->metas.empty()) retired_.push_back(set);
      set.reset();
    }
    if (set == nullptr) set = std::make_shared<RecordMetaSet>();
    ++set->handles;
    return set;
  }

  void Release(RecordMetaSet& set, const std::string& path, const InodeId& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--set.handles == 0) set.leftBehind = StateOf(path, id);
  }

  RecordMeta* FindOrCreate(RecordMetaSet& set, uint16_t id, const std::string& text) {
    const std::string line = std::to_string(id) + "#" + text;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = set.metas.find(line);
    if (known != set.metas.end()) return known->second.get();

    std::unique_ptr<RecordMeta> meta = ParseRecordMeta(id, text);
    if (meta == nullptr) return nullptr;
    return set.metas.emplace(line, std::move(meta)).first->second.get();
  }

 private:
  // A forked child gets the registry as no other thread was using it.
  Registry() {
    pthread_atfork([] { Instance().mutex_.lock(); }, [] { Instance().mutex_.unlock(); },
                   [] { Instance().mutex_.unlock(); });
  }

  static bool IsAsItWasLeft(const RecordMetaSet& set, const std::string& path, const InodeId& id) {
    const std::optional<FileState> now = StateOf(path, id);
    return now && set.leftBehind && IsSameState(*now, *set.leftBehind);
  }

  std::mutex mutex_;  // guards all below, and the sets
  std::unordered_map<InodeId, std::shared_ptr<RecordMetaSet>, InodeIdHash> sets_;
  std::vector<std::shared_ptr<RecordMetaSet>> retired_;  // of files that are gone; records may refer to them
};

}  // namespace

RecordMetaPool::RecordMetaPool(const std::string& path, const InodeId& id)
    : path_(path), id_(id), set_(Registry::Instance().Acquire(path, id)) {}

RecordMetaPool::~RecordMetaPool() {
  Registry::Instance().Release(*set_, path_, id_);
}

RecordMeta* RecordMetaPool::Intern(uint16_t id, const std::string& text) {
  return Registry::Instance().FindOrCreate(*set_, id, text);
}

}  // namespace Kestrun
