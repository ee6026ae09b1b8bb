#include "storage/file_creation.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "storage/directory.h"
#include "storage/file_descriptor.h"

namespace Kestrun {
namespace {

constexpr int kGuardAttempts = 1000;
constexpr useconds_t kGuardRetryMicros = 1000;

// A file whose room could not be had must not get the name: it would have its full length already,
// and whoever opens it later, perhaps asking for less, would have to find that room again. A file
// system that can't reserve passes.
bool ReserveRoom(int descriptor, uint64_t length) {
  int result;
  do {
    result = fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length));
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EOPNOTSUPP || errno == ENOSYS;
}

bool FillAndLink(int descriptor, const std::string& path, const void* head, size_t headSize,
                 uint64_t length) {
  if (length > headSize && !ReserveRoom(descriptor, length)) return false;
  if (pwrite(descriptor, head, headSize, 0) != static_cast<ssize_t>(headSize)) return false;
  if (ftruncate(descriptor, static_cast<off_t>(length)) != 0) return false;
  // Before it has a name: a name that survives a loss of power must lead to a complete header.
  if (fsync(descriptor) != 0) return false;
  const std::string nameless = "/proc/self/fd/" + std::to_string(descriptor);
  return linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

bool CreateFileAtomically(const std::string& path, const void* head, size_t headSize, uint64_t length) {
  FileDescriptor descriptor;
  return descriptor.Open(DirectoryOf(path), O_TMPFILE | O_RDWR) &&
         FillAndLink(descriptor.Get(), path, head, headSize, length);
}

bool CreateExclusive(const std::string& path) {
  FileDescriptor descriptor;
  return descriptor.Open(path, O_RDWR | O_CREAT | O_EXCL) || errno != EEXIST;
}

DirectoryCreationLock::DirectoryCreationLock(const std::string& directory)
    : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0) return;
  for (int attempt = 0; attempt < kGuardAttempts; ++attempt) {
    if (flock(descriptor_, LOCK_EX | LOCK_NB) == 0) return;
    usleep(kGuardRetryMicros);
  }
}

DirectoryCreationLock::~DirectoryCreationLock() {
  if (descriptor_ >= 0) close(descriptor_);
}

}  // namespace Kestrun
