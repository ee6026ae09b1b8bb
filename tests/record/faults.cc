#include "tests/record/faults.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <utility>

namespace Kestrun::Testing {
namespace {

// Whether the call that is being made is the one to fail.
bool IsDue(int& countdown) {
  if (countdown == 0 || --countdown != 0) return false;
  errno = CurrentFaults().error;
  return true;
}

// What the recording itself allocates does not count.
class Unharmed {
 public:
  Unharmed() : failNew_(std::exchange(CurrentFaults().failNew, 0)) {}
  ~Unharmed() { CurrentFaults().failNew = failNew_; }
  Unharmed(const Unharmed&) = delete;
  Unharmed& operator=(const Unharmed&) = delete;

 private:
  int failNew_;
};

std::string Describe(const struct flock& lock) {
  const char* type = lock.l_type == F_RDLCK ? "read" : lock.l_type == F_WRLCK ? "write" : "unlock";
  char text[64];
  std::snprintf(text, sizeof(text), "%s %lx+%lx", type, static_cast<long>(lock.l_start),
                static_cast<long>(lock.l_len));
  return text;
}

}  // namespace

Faults& CurrentFaults() {
  static Faults faults;
  return faults;
}

void ResetFaults() {
  CurrentFaults() = Faults();
}

}  // namespace Kestrun::Testing

using Kestrun::Testing::CurrentFaults;

extern "C" {

ssize_t __real_read(int descriptor, void* buffer, size_t size);
off_t __real_lseek(int descriptor, off_t offset, int whence);
int __real_fsync(int descriptor);
int __real_fcntl(int descriptor, int command, ...);
void* __real_calloc(size_t count, size_t size);

ssize_t __wrap_read(int descriptor, void* buffer, size_t size) {
  if (Kestrun::Testing::IsDue(CurrentFaults().failRead)) return -1;
  const size_t limit = CurrentFaults().bytesPerRead;
  return __real_read(descriptor, buffer, limit != 0 && limit < size ? limit : size);
}

off_t __wrap_lseek(int descriptor, off_t offset, int whence) {
  if (Kestrun::Testing::IsDue(CurrentFaults().failSeek)) return -1;
  return __real_lseek(descriptor, offset, whence);
}

int __wrap_fsync(int descriptor) {
  {
    const Kestrun::Testing::Unharmed recording;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    CurrentFaults().syncs.push_back(std::filesystem::read_symlink(link).filename().string());
  }
  if (Kestrun::Testing::IsDue(CurrentFaults().failSync)) return -1;
  return __real_fsync(descriptor);
}

int __wrap_fcntl(int descriptor, int command, ...) {
  va_list args;
  va_start(args, command);
  void* const argument = va_arg(args, void*);
  va_end(args);
  if (command == F_SETLK) {
    const Kestrun::Testing::Unharmed recording;
    const auto& lock = *static_cast<const struct flock*>(argument);
    CurrentFaults().locks.push_back(Kestrun::Testing::Describe(lock));
    if (CurrentFaults().onLock && !CurrentFaults().onLock(lock)) {
      errno = EAGAIN;
      return -1;
    }
  }
  return __real_fcntl(descriptor, command, argument);
}

void* __wrap_calloc(size_t count, size_t size) {
  ++CurrentFaults().callocs;
  return Kestrun::Testing::IsDue(CurrentFaults().failCalloc) ? nullptr : __real_calloc(count, size);
}
}

void* operator new(size_t size) {
  void* memory =
      Kestrun::Testing::IsDue(CurrentFaults().failNew) ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) {
  return operator new(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete[](void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept {
  std::free(memory);
}
