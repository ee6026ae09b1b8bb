// An object that this process and those forked from it see alike.
#pragma once

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace Kestrun::Testing {

// One that stays until the process ends.
template <typename Object>
Object* NewSharedObject() {
  void* bytes = mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (bytes == MAP_FAILED) {
    std::perror("mmap");
    std::abort();
  }
  return new (bytes) Object();
}

template <typename Object>
class SharedMemory {
 public:
  SharedMemory() : object_(NewSharedObject<Object>()) {}
  ~SharedMemory() { munmap(object_, sizeof(Object)); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  Object* get() const { return object_; }
  Object* operator->() const { return object_; }
  Object& operator*() const { return *object_; }

 private:
  Object* object_;
};

}  // namespace Kestrun::Testing
