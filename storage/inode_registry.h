// storage/inode_registry.h: the state that one process keeps for a file, whatever the number of its handles.
//
// POSIX record locks belong to a process and a file, and so do the log's index and the manifest's list. Each
// of them is found through the device and inode number of the file. Records are created on first use and live
// until the process ends, so that a pointer to one never dangles.
//
// Threads: safe. A fork can't leave the child with a registry that another thread was using.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

namespace Kestrun {

struct InodeId {
  uint64_t device;
  uint64_t inode;
  bool operator==(const InodeId& other) const { return device == other.device && inode == other.inode; }
};

struct InodeIdHash {
  size_t operator()(const InodeId& id) const {
    return std::hash<uint64_t>()(id.inode * 0x9E3779B97F4A7C15u ^ id.device);
  }
};

// State has a default constructor and a method AfterFork(), which is called in a forked child for every
// record: threads that held its mutexes do not exist there.
template <typename State>
class InodeRegistry {
 public:
  // The record of `id`, created when there is none. `use` is called with it while the registry is locked.
  // Throws std::bad_alloc.
  template <typename Use>
  static State* FindOrCreate(const InodeId& id, Use use) {
    InodeRegistry& registry = Instance();
    const std::lock_guard<std::mutex> lock(registry.mutex_);
    std::unique_ptr<State>& slot = registry.states_[id];
    if (slot == nullptr) slot = std::make_unique<State>();
    use(*slot);
    return slot.get();
  }

  // Calls `change` while the registry is locked: no fork leaves the child with half a change.
  template <typename Change>
  static void ChangeUnforked(Change change) {
    const std::lock_guard<std::mutex> lock(Instance().mutex_);
    change();
  }

  // Calls `use` with the record of `id`, or with null when there is none, while the registry is locked: no
  // record comes up meanwhile.
  template <typename Use>
  static void WithExisting(const InodeId& id, Use use) {
    InodeRegistry& registry = Instance();
    const std::lock_guard<std::mutex> lock(registry.mutex_);
    const auto found = registry.states_.find(id);
    use(found == registry.states_.end() ? nullptr : found->second.get());
  }

 private:
  InodeRegistry() { pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild); }

  // Never destroyed: files may be open while static objects are being taken down. And never allocated:
  // closing a descriptor, which must not fail, may be the first to ask.
  static InodeRegistry& Instance() {
    alignas(InodeRegistry) static unsigned char memory[sizeof(InodeRegistry)];
    static InodeRegistry* const registry = new (memory) InodeRegistry;
    return *registry;
  }

  static void BeforeFork() { Instance().mutex_.lock(); }
  static void AfterForkInParent() { Instance().mutex_.unlock(); }
  static void AfterForkInChild() {
    for (auto& entry : Instance().states_) {
      if (entry.second != nullptr) entry.second->AfterFork();
    }
    Instance().mutex_.unlock();
  }

  std::mutex mutex_;
  std::unordered_map<InodeId, std::unique_ptr<State>, InodeIdHash> states_;  // guarded by mutex_
};

// Gives a forked child a mutex that nobody holds, in the place of one whose holder was not copied.
template <typename Mutex>
void ReinitAfterFork(Mutex& mutex) {
  new (&mutex) Mutex;
}

}  // namespace Kestrun
