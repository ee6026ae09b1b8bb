#include "process_end.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

namespace Kestrun::Script {

namespace {

struct OpenStores {
  std::mutex mutex;  // of `closes` and `registered`
  std::map<void*, std::function<void()>> closes;
  bool registered = false;
  std::shared_mutex running;  // shared while an operation runs, exclusive at the end of the process
  bool ended = false;         // guarded by `running`
};

// Never destroyed: threads of the pool may look at it until the process is gone.
OpenStores& Stores() {
  static auto* const stores = new OpenStores;
  return *stores;
}

void CloseAll() {
  OpenStores& stores = Stores();
  const std::unique_lock<std::shared_mutex> running(stores.running);
  stores.ended = true;
  std::map<void*, std::function<void()>> closes;
  {
    const std::lock_guard<std::mutex> lock(stores.mutex);
    closes.swap(stores.closes);
  }
  for (const auto& [key, close] : closes) close();
}

}  // namespace

ProcessEnd::Guard::Guard() : lock_(Stores().running) {}

bool ProcessEnd::Guard::Ended() const {
  return Stores().ended;
}

void ProcessEnd::Add(void* key, std::function<void()> close) {
  OpenStores& stores = Stores();
  const std::lock_guard<std::mutex> lock(stores.mutex);
  stores.closes[key] = std::move(close);
  if (!stores.registered) stores.registered = std::atexit(&CloseAll) == 0;
}

void ProcessEnd::Remove(void* key) {
  OpenStores& stores = Stores();
  const std::lock_guard<std::mutex> lock(stores.mutex);
  stores.closes.erase(key);
}

}  // namespace Kestrun::Script
