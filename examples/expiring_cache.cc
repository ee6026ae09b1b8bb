// Values with a time to live. Takes the directory of the store.
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "kestrun/kestrun.h"

using Kestrun::kStatusOk;

namespace {

// What a reader sees: the value, or that there is none. Absent, deleted and expired look the same.
std::string Describe(Kestrun::Store& store, const std::string& key) {
  std::optional<std::string> value;
  if (const uint32_t status = store.Get(key, &value)) return Kestrun::StatusText(status);
  return value.value_or("gone");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: expiring_cache STORE\n";
    return 2;
  }
  std::unique_ptr<Kestrun::Store> store;
  if (Kestrun::Store::Open(argv[1], {}, &store) != kStatusOk) return 1;

  const std::string token = "a session's token";
  if (store->Put("session-1", token, 1) != kStatusOk) return 1;
  if (store->Put("session-2", token, 3600) != kStatusOk) return 1;
  if (store->Put("colour", "green") != kStatusOk) return 1;  // for ever
  std::cerr << "at once: " << Describe(*store, "session-1") << '\n';

  // A time to live of one second ends between one and two seconds from now; the clock tells when.
  while (Describe(*store, "session-1") != "gone") std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::cerr << "later: session-1 is " << Describe(*store, "session-1") << ", session-2 is "
            << Describe(*store, "session-2") << ", colour is " << Describe(*store, "colour") << '\n';
  return 0;
}
