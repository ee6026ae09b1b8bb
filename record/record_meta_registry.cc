#include "record/record_meta_registry.h"

#include <pthread.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#include "record/record_meta_parser.h"

namespace Kestrun {
namespace {

class Registry {
 public:
  // Never destroyed: records may outlive the static objects of the library.
  static Registry& Instance() {
    static Registry* const registry = new Registry;
    return *registry;
  }

  RecordMeta* FindOrMake(uint16_t id, const std::string& text) {
    const std::string name = std::to_string(id) + "#" + text;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = metas_.find(name);
    if (known != metas_.end()) return known->second.get();

    std::unique_ptr<RecordMeta> meta = ParseRecordMeta(id, text);
    if (meta == nullptr) return nullptr;
    return metas_.emplace(name, std::move(meta)).first->second.get();
  }

 private:
  // A forked child gets the registry as no other thread was using it.
  Registry() {
    pthread_atfork([] { Instance().mutex_.lock(); }, [] { Instance().mutex_.unlock(); },
                   [] { Instance().mutex_.unlock(); });
  }

  std::mutex mutex_;
  std::unordered_map<std::string, std::unique_ptr<RecordMeta>> metas_;  // guarded by mutex_
};

}  // namespace

RecordMeta* InternRecordMeta(uint16_t id, const std::string& text) {
  return Registry::Instance().FindOrMake(id, text);
}

}  // namespace Kestrun
