#include "tests/support/interposed_calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <type_traits>

namespace Kestrun::Testing {
namespace {

std::atomic<CallObserver*> currentObserver = nullptr;
thread_local bool isObserving = false;

class Observing {
 public:
  Observing() { isObserving = true; }
  ~Observing() { isObserving = false; }
  Observing(const Observing&) = delete;
  Observing& operator=(const Observing&) = delete;
};

template <typename Result>
int64_t AsNumber(Result result) {
  if constexpr (std::is_pointer_v<Result>) {
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(result));
  } else {
    return static_cast<int64_t>(result);
  }
}

// Asks the observer, makes the call, and tells the observer. A call that is not made returns `failure`.
template <typename Result, typename Real>
Result Interpose(Call call, Result failure, Real real) {
  CallObserver* const observer = currentObserver.load(std::memory_order_acquire);
  if (observer == nullptr || isObserving) return real(call);
  {
    const Observing observing;
    if (!observer->Before(call)) return failure;
  }
  const Result result = real(call);
  const int error = errno;
  {
    const Observing observing;
    observer->After(call, AsNumber(result));
  }
  errno = error;
  return result;
}

// For functions that return the error itself, and never a negative one.
template <typename Real>
int InterposePosix(const Call& call, Real real) {
  const int result = Interpose(call, -1, real);
  return result == -1 ? errno : result;
}

Call CallOn(Function function, int descriptor) {
  Call call = {function};
  call.descriptor = descriptor;
  return call;
}

Call CallOn(Function function, const char* path, const char* newPath = nullptr) {
  Call call = {function};
  call.path = path;
  call.newPath = newPath;
  return call;
}

Call TransferOf(Function function, int descriptor, const void* bytes, size_t count, int64_t offset = 0) {
  Call call = CallOn(function, descriptor);
  call.bytes = bytes;
  call.count = count;
  call.offset = offset;
  return call;
}

Call CallOnMemory(Function function, void* address, size_t count) {
  Call call = {function};
  call.argument = address;
  call.count = count;
  return call;
}

}  // namespace

void SetCallObserver(CallObserver* observer) {
  currentObserver.store(observer, std::memory_order_release);
}

std::string FileNameOf(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  return std::filesystem::read_symlink(link).filename().string();
}

}  // namespace Kestrun::Testing

using Kestrun::Testing::Call;
using Kestrun::Testing::CallOn;
using Kestrun::Testing::CallOnMemory;
using Kestrun::Testing::Function;
using Kestrun::Testing::Interpose;
using Kestrun::Testing::InterposePosix;
using Kestrun::Testing::TransferOf;

// The linker sends the program's calls of FUNCTION to __wrap_FUNCTION; __real_FUNCTION is the C library's.
// tests/support/CMakeLists.txt has the list that it goes by. What only passes through is of no type here.
extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  Call call = CallOn(Function::Open, path);
  call.flags = flags;
  return Interpose(call, -1, [&](const Call&) { return __real_open(path, flags, mode); });
}

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
  return Interpose(CallOn(Function::Close, descriptor), -1,
                   [&](const Call&) { return __real_close(descriptor); });
}

ssize_t __real_read(int descriptor, void* bytes, size_t count);
ssize_t __wrap_read(int descriptor, void* bytes, size_t count) {
  return Interpose(TransferOf(Function::Read, descriptor, nullptr, count), ssize_t{-1},
                   [&](const Call& call) { return __real_read(descriptor, bytes, call.count); });
}

ssize_t __real_pread(int descriptor, void* bytes, size_t count, off_t offset);
ssize_t __wrap_pread(int descriptor, void* bytes, size_t count, off_t offset) {
  return Interpose(TransferOf(Function::PRead, descriptor, nullptr, count, offset), ssize_t{-1},
                   [&](const Call& call) { return __real_pread(descriptor, bytes, call.count, offset); });
}

ssize_t __real_write(int descriptor, const void* bytes, size_t count);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  return Interpose(TransferOf(Function::Write, descriptor, bytes, count), ssize_t{-1},
                   [&](const Call& call) { return __real_write(descriptor, bytes, call.count); });
}

ssize_t __real_pwrite(int descriptor, const void* bytes, size_t count, off_t offset);
ssize_t __wrap_pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
  return Interpose(TransferOf(Function::PWrite, descriptor, bytes, count, offset), ssize_t{-1},
                   [&](const Call& call) { return __real_pwrite(descriptor, bytes, call.count, offset); });
}

int __real_fsync(int descriptor);
int __wrap_fsync(int descriptor) {
  return Interpose(CallOn(Function::FSync, descriptor), -1,
                   [&](const Call&) { return __real_fsync(descriptor); });
}

int __real_fdatasync(int descriptor);
int __wrap_fdatasync(int descriptor) {
  return Interpose(CallOn(Function::FDataSync, descriptor), -1,
                   [&](const Call&) { return __real_fdatasync(descriptor); });
}

void* __real_mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset);
void* __wrap_mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) {
  Call call = CallOnMemory(Function::MMap, address, length);
  call.descriptor = descriptor;
  call.offset = offset;
  call.flags = protection | flags;
  return Interpose(call, MAP_FAILED, [&](const Call&) {
    return __real_mmap(address, length, protection, flags, descriptor, offset);
  });
}

int __real_munmap(void* address, size_t length);
int __wrap_munmap(void* address, size_t length) {
  return Interpose(CallOnMemory(Function::MUnmap, address, length), -1,
                   [&](const Call&) { return __real_munmap(address, length); });
}

int __real_msync(void* address, size_t length, int flags);
int __wrap_msync(void* address, size_t length, int flags) {
  return Interpose(CallOnMemory(Function::MSync, address, length), -1,
                   [&](const Call&) { return __real_msync(address, length, flags); });
}

int __real_ftruncate(int descriptor, off_t length);
int __wrap_ftruncate(int descriptor, off_t length) {
  return Interpose(TransferOf(Function::FTruncate, descriptor, nullptr, 0, length), -1,
                   [&](const Call&) { return __real_ftruncate(descriptor, length); });
}

int __real_fallocate(int descriptor, int mode, off_t offset, off_t length);
int __wrap_fallocate(int descriptor, int mode, off_t offset, off_t length) {
  Call call = TransferOf(Function::FAllocate, descriptor, nullptr, static_cast<size_t>(length), offset);
  call.flags = mode;
  return Interpose(call, -1, [&](const Call&) { return __real_fallocate(descriptor, mode, offset, length); });
}

int __real_posix_fallocate(int descriptor, off_t offset, off_t length);
int __wrap_posix_fallocate(int descriptor, off_t offset, off_t length) {
  return InterposePosix(
      TransferOf(Function::PosixFAllocate, descriptor, nullptr, static_cast<size_t>(length), offset),
      [&](const Call&) { return __real_posix_fallocate(descriptor, offset, length); });
}

int __real_fcntl(int descriptor, int command, ...);
int __wrap_fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  Call call = CallOn(Function::FCntl, descriptor);
  call.flags = command;
  call.argument = argument;
  return Interpose(call, -1, [&](const Call&) { return __real_fcntl(descriptor, command, argument); });
}

int __real_mkdir(const char* path, mode_t mode);
int __wrap_mkdir(const char* path, mode_t mode) {
  Call call = CallOn(Function::MkDir, path);
  call.flags = static_cast<int>(mode);
  return Interpose(call, -1, [&](const Call&) { return __real_mkdir(path, mode); });
}

void* __real_opendir(const char* path);
void* __wrap_opendir(const char* path) {
  return Interpose(CallOn(Function::OpenDir, path), static_cast<void*>(nullptr),
                   [&](const Call&) { return __real_opendir(path); });
}

int __real_linkat(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath, int flags);
int __wrap_linkat(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath, int flags) {
  return Interpose(CallOn(Function::LinkAt, oldPath, newPath), -1, [&](const Call&) {
    return __real_linkat(oldDirectory, oldPath, newDirectory, newPath, flags);
  });
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
  return Interpose(CallOn(Function::Unlink, path), -1, [&](const Call&) { return __real_unlink(path); });
}

int __real_remove(const char* path);
int __wrap_remove(const char* path) {
  return Interpose(CallOn(Function::Remove, path), -1, [&](const Call&) { return __real_remove(path); });
}

int __real_rmdir(const char* path);
int __wrap_rmdir(const char* path) {
  return Interpose(CallOn(Function::RmDir, path), -1, [&](const Call&) { return __real_rmdir(path); });
}

int __real_rename(const char* oldPath, const char* newPath);
int __wrap_rename(const char* oldPath, const char* newPath) {
  return Interpose(CallOn(Function::Rename, oldPath, newPath), -1,
                   [&](const Call&) { return __real_rename(oldPath, newPath); });
}

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  long values[6];
  for (long& value : values) value = va_arg(arguments, long);
  va_end(arguments);
  const auto real = [&](const Call&) {
    return __real_syscall(number, values[0], values[1], values[2], values[3], values[4], values[5]);
  };
  if (number != SYS_renameat2) return real({});
  const auto* oldPath = reinterpret_cast<const char*>(values[1]);
  const auto* newPath = reinterpret_cast<const char*>(values[3]);
  return Interpose(CallOn(Function::RenameAt2, oldPath, newPath), -1L, real);
}

int __real_access(const char* path, int mode);
int __wrap_access(const char* path, int mode) {
  Call call = CallOn(Function::Access, path);
  call.flags = mode;
  return Interpose(call, -1, [&](const Call&) { return __real_access(path, mode); });
}

int __real_fstat(int descriptor, void* info);
int __wrap_fstat(int descriptor, void* info) {
  return Interpose(CallOn(Function::FStat, descriptor), -1,
                   [&](const Call&) { return __real_fstat(descriptor, info); });
}

int __real_stat(const char* path, void* info);
int __wrap_stat(const char* path, void* info) {
  return Interpose(CallOn(Function::Stat, path), -1, [&](const Call&) { return __real_stat(path, info); });
}

int __real_lstat(const char* path, void* info);
int __wrap_lstat(const char* path, void* info) {
  return Interpose(CallOn(Function::LStat, path), -1, [&](const Call&) { return __real_lstat(path, info); });
}

off_t __real_lseek(int descriptor, off_t offset, int whence);
off_t __wrap_lseek(int descriptor, off_t offset, int whence) {
  Call call = CallOn(Function::LSeek, descriptor);
  call.offset = offset;
  call.flags = whence;
  return Interpose(call, off_t{-1}, [&](const Call&) { return __real_lseek(descriptor, offset, whence); });
}

int __real_flock(int descriptor, int operation);
int __wrap_flock(int descriptor, int operation) {
  Call call = CallOn(Function::FLock, descriptor);
  call.flags = operation;
  return Interpose(call, -1, [&](const Call&) { return __real_flock(descriptor, operation); });
}

ssize_t __real_copy_file_range(int from, off_t* fromOffset, int to, off_t* toOffset, size_t count,
                               unsigned int flags);
ssize_t __wrap_copy_file_range(int from, off_t* fromOffset, int to, off_t* toOffset, size_t count,
                               unsigned int flags) {
  return Interpose(TransferOf(Function::CopyFileRange, from, nullptr, count), ssize_t{-1},
                   [&](const Call& call) {
                     return __real_copy_file_range(from, fromOffset, to, toOffset, call.count, flags);
                   });
}

int __real_chmod(const char* path, mode_t mode);
int __wrap_chmod(const char* path, mode_t mode) {
  Call call = CallOn(Function::ChMod, path);
  call.flags = static_cast<int>(mode);
  return Interpose(call, -1, [&](const Call&) { return __real_chmod(path, mode); });
}

int __real_fchmod(int descriptor, mode_t mode);
int __wrap_fchmod(int descriptor, mode_t mode) {
  Call call = CallOn(Function::FChMod, descriptor);
  call.flags = static_cast<int>(mode);
  return Interpose(call, -1, [&](const Call&) { return __real_fchmod(descriptor, mode); });
}

int __real_usleep(useconds_t micros);
int __wrap_usleep(useconds_t micros) {
  return Interpose(CallOnMemory(Function::USleep, nullptr, micros), -1,
                   [](const Call& call) { return __real_usleep(static_cast<useconds_t>(call.count)); });
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
  return Interpose(CallOnMemory(Function::Malloc, nullptr, size), static_cast<void*>(nullptr),
                   [&](const Call&) { return __real_malloc(size); });
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
  return Interpose(CallOnMemory(Function::Calloc, nullptr, count * size), static_cast<void*>(nullptr),
                   [&](const Call&) { return __real_calloc(count, size); });
}

void* __real_realloc(void* memory, size_t size);
void* __wrap_realloc(void* memory, size_t size) {
  return Interpose(CallOnMemory(Function::Realloc, memory, size), static_cast<void*>(nullptr),
                   [&](const Call&) { return __real_realloc(memory, size); });
}

void* __real_aligned_alloc(size_t alignment, size_t size);
void* __wrap_aligned_alloc(size_t alignment, size_t size) {
  return Interpose(CallOnMemory(Function::AlignedAlloc, nullptr, size), static_cast<void*>(nullptr),
                   [&](const Call&) { return __real_aligned_alloc(alignment, size); });
}

int __real_posix_memalign(void** memory, size_t alignment, size_t size);
int __wrap_posix_memalign(void** memory, size_t alignment, size_t size) {
  return InterposePosix(CallOnMemory(Function::PosixMemAlign, nullptr, size),
                        [&](const Call&) { return __real_posix_memalign(memory, alignment, size); });
}

}  // extern "C"

// In the place of the C++ library's, whose own allocations come by here too, also where it is a shared one.
// All forms without an alignment: to a sanitizer, memory of its own `new` must not go back by our `delete`.
void* operator new(size_t size) {
  void* const memory = Interpose(CallOnMemory(Function::New, nullptr, size), static_cast<void*>(nullptr),
                                 [&](const Call&) { return __real_malloc(size == 0 ? 1 : size); });
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) {
  return operator new(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept {
  return operator new(size, nothrow);
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

void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
