// bindings/node/src/process_end.h: stores that are open when the process ends.
//
// Script may end the process at any moment, and a host then destroys no object of script's. The store's own
// thread and those of the pool would go on while the library is taken down. So the process closes what is
// still open first, and what the pool has not begun is not begun any more.
//
// Threads: safe from any thread.
#pragma once

#include <functional>
#include <shared_mutex>

namespace Kestrun::Script {

class ProcessEnd {
 public:
  // Keeps the end of the process waiting while it exists.
  class Guard {
   public:
    Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    // Whether the end of the process came first: the store is gone.
    bool Ended() const;

   private:
    std::shared_lock<std::shared_mutex> lock_;
  };

  // `close` runs at the end of the process, unless Remove has taken it back. To be called when a store was
  // opened: then everything that the library needs for closing it is taken down later.
  static void Add(void* key, std::function<void()> close);
  static void Remove(void* key);
};

}  // namespace Kestrun::Script
