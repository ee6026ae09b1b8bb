#include "storage/log_copy.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

namespace Kestrun {

std::shared_ptr<LogCopy> LogCopy::Create(uint32_t capacity) {
  void* bytes =
      mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (bytes == MAP_FAILED) return nullptr;
  auto* copy = new (std::nothrow) LogCopy(static_cast<uint8_t*>(bytes), capacity);
  if (copy == nullptr) {
    munmap(bytes, capacity);
    throw std::bad_alloc();
  }
  return std::shared_ptr<LogCopy>(copy);
}

LogCopy::~LogCopy() {
  munmap(bytes_, capacity_);
}

void LogCopy::Extend(const uint8_t* log, uint32_t end) {
  if (end <= size_) return;
  std::memcpy(bytes_ + size_, log + size_, end - size_);
  size_ = end;
}

}  // namespace Kestrun
