#include "tests/fault/fault_injection.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace Kestrun::Testing {
namespace {

FaultPlan plan;
bool armed = false;
long calls[kFaults] = {};
long hits = 0;

enum class Verdict { Pass, Half, Fail };

Verdict Judge(Fault fault) {
  if (!armed) return Verdict::Pass;
  const long number = ++calls[static_cast<size_t>(fault)];
  if (fault != plan.fault || number < plan.first || number > plan.last) return Verdict::Pass;
  ++hits;
  if (plan.ends) _exit(kEndedByPlan);
  if (plan.halves && (number == plan.first || !plan.failsBehind)) return Verdict::Half;
  errno = plan.error;
  return Verdict::Fail;
}

bool Fails(Fault fault) {
  return Judge(fault) == Verdict::Fail;
}

// The bytes that a transfer may move; negative when it is to fail.
ssize_t Allowed(Fault fault, size_t count) {
  switch (Judge(fault)) {
    case Verdict::Fail:
      return -1;
    case Verdict::Half:
      return static_cast<ssize_t>(count < 2 ? count : count / 2);
    case Verdict::Pass:
      break;
  }
  return static_cast<ssize_t>(count);
}

bool LinksFail() {
  if (armed && plan.noLinks) errno = EXDEV;
  return armed && plan.noLinks;
}

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

__attribute__((visibility("default"))) const char* FaultName(Fault fault) {
  static const char* const names[] = {
      "open",  "read",  "pread",   "write",           "fsync",  "mmap",   "ftruncate", "fallocate",
      "fcntl", "mkdir", "opendir", "linkat",          "unlink", "access", "fstat",     "lseek",
      "msync", "flock", "rename",  "copy_file_range", "chmod",  "malloc"};
  static_assert(sizeof(names) / sizeof(names[0]) == kFaults);
  return names[static_cast<size_t>(fault)];
}

__attribute__((visibility("default"))) void SetFaultPlan(const FaultPlan& newPlan) {
  plan = newPlan;
  hits = 0;
  for (long& count : calls) count = 0;
}

__attribute__((visibility("default"))) void ArmFaults(bool newArmed) {
  armed = newArmed;
}

__attribute__((visibility("default"))) long FaultCalls(Fault fault) {
  return calls[static_cast<size_t>(fault)];
}

__attribute__((visibility("default"))) long FaultHits() {
  return hits;
}

}  // namespace Kestrun::Testing

using Kestrun::Testing::Allowed;
using Kestrun::Testing::Fails;
using Kestrun::Testing::Fault;
using Kestrun::Testing::LinksFail;
using Kestrun::Testing::Next;

// The C library's functions, with what stands behind them.
extern "C" {
#pragma GCC visibility push(default)

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

void* malloc(size_t size) {
  return Fails(Fault::Allocate) ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  return Fails(Fault::Allocate) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  return Fails(Fault::Allocate) ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return Fails(Fault::Allocate) ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, size_t alignment, size_t size) {
  void* got = Fails(Fault::Allocate) ? nullptr : __libc_memalign(alignment, size);
  if (got == nullptr) return ENOMEM;
  *memory = got;
  return 0;
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  static const auto next = Next<int (*)(const char*, int, ...)>("open");
  return Fails(Fault::Open) ? -1 : next(path, flags, mode);
}
ssize_t read(int descriptor, void* bytes, size_t count) {
  static const auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
  const ssize_t allowed = Allowed(Fault::Read, count);
  return allowed < 0 ? -1 : next(descriptor, bytes, static_cast<size_t>(allowed));
}
ssize_t pread(int descriptor, void* bytes, size_t count, off_t offset) {
  static const auto next = Next<ssize_t (*)(int, void*, size_t, off_t)>("pread");
  const ssize_t allowed = Allowed(Fault::PRead, count);
  return allowed < 0 ? -1 : next(descriptor, bytes, static_cast<size_t>(allowed), offset);
}
ssize_t write(int descriptor, const void* bytes, size_t count) {
  static const auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
  const ssize_t allowed = Allowed(Fault::PWrite, count);
  return allowed < 0 ? -1 : next(descriptor, bytes, static_cast<size_t>(allowed));
}
ssize_t pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
  static const auto next = Next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  const ssize_t allowed = Allowed(Fault::PWrite, count);
  return allowed < 0 ? -1 : next(descriptor, bytes, static_cast<size_t>(allowed), offset);
}
int fsync(int descriptor) {
  static const auto next = Next<int (*)(int)>("fsync");
  return Fails(Fault::Sync) ? -1 : next(descriptor);
}
void* mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) noexcept {
  static const auto next = Next<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
  return Fails(Fault::Map) ? MAP_FAILED : next(address, length, protection, flags, descriptor, offset);
}
int ftruncate(int descriptor, off_t length) noexcept {
  static const auto next = Next<int (*)(int, off_t)>("ftruncate");
  return Fails(Fault::Truncate) ? -1 : next(descriptor, length);
}
int fallocate(int descriptor, int mode, off_t offset, off_t length) {
  static const auto next = Next<int (*)(int, int, off_t, off_t)>("fallocate");
  return Fails(Fault::Reserve) ? -1 : next(descriptor, mode, offset, length);
}
int posix_fallocate(int descriptor, off_t offset, off_t length) {
  static const auto next = Next<int (*)(int, off_t, off_t)>("posix_fallocate");
  return Fails(Fault::Reserve) ? errno : next(descriptor, offset, length);
}
int fcntl(int descriptor, int command, ...) {
  va_list args;
  va_start(args, command);
  void* const argument = va_arg(args, void*);
  va_end(args);
  static const auto next = Next<int (*)(int, int, ...)>("fcntl");
  return Fails(Fault::Lock) ? -1 : next(descriptor, command, argument);
}
int mkdir(const char* path, mode_t mode) noexcept {
  static const auto next = Next<int (*)(const char*, mode_t)>("mkdir");
  return Fails(Fault::MakeDir) ? -1 : next(path, mode);
}
DIR* opendir(const char* path) {
  static const auto next = Next<DIR* (*)(const char*)>("opendir");
  return Fails(Fault::OpenDir) ? nullptr : next(path);
}
int linkat(int oldDirectory, const char* oldPath, int newDirectory, const char* newPath, int flags) noexcept {
  static const auto next = Next<int (*)(int, const char*, int, const char*, int)>("linkat");
  return LinksFail() || Fails(Fault::Link) ? -1 : next(oldDirectory, oldPath, newDirectory, newPath, flags);
}
int unlink(const char* path) noexcept {
  static const auto next = Next<int (*)(const char*)>("unlink");
  return Fails(Fault::Unlink) ? -1 : next(path);
}
int remove(const char* path) noexcept {
  static const auto next = Next<int (*)(const char*)>("remove");
  return Fails(Fault::Unlink) ? -1 : next(path);
}
int rmdir(const char* path) noexcept {
  static const auto next = Next<int (*)(const char*)>("rmdir");
  return Fails(Fault::Unlink) ? -1 : next(path);
}
int rename(const char* oldPath, const char* newPath) noexcept {
  static const auto next = Next<int (*)(const char*, const char*)>("rename");
  return Fails(Fault::Rename) ? -1 : next(oldPath, newPath);
}
// Not every C library has a function for renameat2.
long syscall(long number, ...) noexcept {
  va_list args;
  va_start(args, number);
  long values[6];
  for (long& value : values) value = va_arg(args, long);
  va_end(args);
  static const auto next = Next<long (*)(long, ...)>("syscall");
  if (number == SYS_renameat2 && Fails(Fault::Rename)) return -1;
  return next(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}
ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t count,
                        unsigned int flags) {
  static const auto next =
      Next<ssize_t (*)(int, off64_t*, int, off64_t*, size_t, unsigned int)>("copy_file_range");
  const ssize_t allowed = Allowed(Fault::CopyRange, count);
  return allowed < 0 ? -1 : next(from, fromOffset, to, toOffset, static_cast<size_t>(allowed), flags);
}
int chmod(const char* path, mode_t mode) noexcept {
  static const auto next = Next<int (*)(const char*, mode_t)>("chmod");
  return Fails(Fault::Mode) ? -1 : next(path, mode);
}
int fchmod(int descriptor, mode_t mode) noexcept {
  static const auto next = Next<int (*)(int, mode_t)>("fchmod");
  return Fails(Fault::Mode) ? -1 : next(descriptor, mode);
}
int access(const char* path, int mode) noexcept {
  static const auto next = Next<int (*)(const char*, int)>("access");
  return Fails(Fault::Access) ? -1 : next(path, mode);
}
int fstat(int descriptor, struct stat* info) noexcept {
  static const auto next = Next<int (*)(int, struct stat*)>("fstat");
  return Fails(Fault::Stat) ? -1 : next(descriptor, info);
}
int stat(const char* path, struct stat* info) noexcept {
  static const auto next = Next<int (*)(const char*, struct stat*)>("stat");
  return Fails(Fault::Stat) ? -1 : next(path, info);
}
int lstat(const char* path, struct stat* info) noexcept {
  static const auto next = Next<int (*)(const char*, struct stat*)>("lstat");
  return Fails(Fault::Stat) ? -1 : next(path, info);
}
off_t lseek(int descriptor, off_t offset, int whence) noexcept {
  static const auto next = Next<off_t (*)(int, off_t, int)>("lseek");
  return Fails(Fault::Seek) ? -1 : next(descriptor, offset, whence);
}
int msync(void* address, size_t length, int flags) {
  static const auto next = Next<int (*)(void*, size_t, int)>("msync");
  return Fails(Fault::SyncMap) ? -1 : next(address, length, flags);
}
int flock(int descriptor, int operation) noexcept {
  static const auto next = Next<int (*)(int, int)>("flock");
  return Fails(Fault::LockWhole) ? -1 : next(descriptor, operation);
}
// What fails for good is tried several times; nobody has to wait for it. Shorter pauses are those of a wait that ends by
// the clock.
int usleep(useconds_t micros) {
  static const auto next = Next<int (*)(useconds_t)>("usleep");
  return Kestrun::Testing::armed && micros >= 1000 ? 0 : next(micros);
}

#pragma GCC visibility pop
}
