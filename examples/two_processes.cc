// Two processes on one store: each sees what the other has written as soon as the other's call has returned.
// Takes the directory of the store.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "kestrun/kestrun.h"

namespace {

constexpr int kEntries = 1000;

std::unique_ptr<Kestrun::LSDBImpl> OpenStore(const char* path) {
  Kestrun::LSDBImpl* opened = nullptr;
  if (Kestrun::LSDBImpl::Open(path, {16 * 1024, 0}, &opened) != Kestrun::kStatusOk) std::_Exit(1);
  return std::unique_ptr<Kestrun::LSDBImpl>(opened);
}

// A lock that another process holds for more than about 3 ms gives kStatusLockFailed: nothing was done.
void Write(Kestrun::LSDBImpl& store, const std::string& name, int number) {
  const std::string key = name + "-" + std::to_string(number);
  uint32_t status;
  do {
    status = store.Insert(key, 3600, key.data(), static_cast<unsigned int>(key.size()));
  } while (status == Kestrun::kStatusLockFailed);
  if (status != Kestrun::kStatusOk) std::_Exit(1);
}

int CountReadable(Kestrun::LSDBImpl& store, const std::string& name) {
  int readable = 0;
  for (int number = 0; number < kEntries; ++number) {
    const std::string key = name + "-" + std::to_string(number);
    const void* value = nullptr;
    unsigned int size = 0;
    while (store.Get(key, &value, &size) == Kestrun::kStatusLockFailed) {
    }
    if (value != nullptr && std::string(static_cast<const char*>(value), size) == key) ++readable;
    std::free(const_cast<void*>(value));
  }
  return readable;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: two_processes STORE\n";
    return 2;
  }
  // A store is opened in the process that uses it, behind the fork.
  const pid_t child = fork();
  const std::string name = child == 0 ? "child" : "parent";
  const std::unique_ptr<Kestrun::LSDBImpl> store = OpenStore(argv[1]);
  for (int number = 0; number < kEntries; ++number) Write(*store, name, number);
  if (child == 0) return 0;

  int status = 0;
  waitpid(child, &status, 0);
  std::cerr << "the parent reads " << CountReadable(*store, "parent") << " entries of its own and "
            << CountReadable(*store, "child") << " of the child\n";
  return status == 0 ? 0 : 1;
}
