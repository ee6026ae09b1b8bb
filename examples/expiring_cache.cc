// Raw bytes with a time to live. Takes the directory of the store.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include "kestrun/kestrun.h"

namespace {

// What a reader sees: the value, nothing, or that it has expired.
std::string Describe(Kestrun::LSDBImpl& store, const Kestrun::Key& key) {
  const void* value = nullptr;
  unsigned int size = 0;
  const uint32_t status = store.Get(key, &value, &size);
  // An entry that still lies in the log and one in a block say differently that they have expired.
  if (status == Kestrun::kStatusExpired || status == Kestrun::kStatusInvalid) return "expired";
  if (status != Kestrun::kStatusOk) return Kestrun::StatusText(status);
  if (value == nullptr) return "missing";
  const std::string text(static_cast<const char*>(value), size);
  std::free(const_cast<void*>(value));  // the buffer is the caller's
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: expiring_cache STORE\n";
    return 2;
  }
  Kestrun::LSDBImpl* opened = nullptr;
  if (Kestrun::LSDBImpl::Open(argv[1], {64 * 1024, 0}, &opened) != Kestrun::kStatusOk) return 1;
  const std::unique_ptr<Kestrun::LSDBImpl> store(opened);

  const std::string token = "a session's token";
  store->Insert("session-1", 1, token.data(), static_cast<unsigned int>(token.size()));
  store->Insert("session-2", 3600, token.data(), static_cast<unsigned int>(token.size()));
  std::cerr << "at once: " << Describe(*store, "session-1") << '\n';

  // A time to live of one second ends between one and two seconds from now; the clock tells when.
  while (Describe(*store, "session-1") != "expired")
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::cerr << "later: session-1 is " << Describe(*store, "session-1") << ", session-2 is "
            << Describe(*store, "session-2") << ", session-3 is " << Describe(*store, "session-3") << '\n';
  return 0;
}
