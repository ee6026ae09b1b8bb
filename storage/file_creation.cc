#include "storage/file_creation.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "storage/directory.h"
#include "storage/os_file.h"

namespace Kestrun {
namespace {

constexpr int kGuardAttempts = 1000;
constexpr useconds_t kGuardRetryMicros = 1000;

bool FillAndLink(int descriptor, const std::string& path, const void* head, size_t headSize,
                 uint64_t length) {
  if (pwrite(descriptor, head, headSize, 0) != static_cast<ssize_t>(headSize)) return false;
  if (ftruncate(descriptor, static_cast<off_t>(length)) != 0) return false;
  // Before it has a name: a name that survives a loss of power must lead to a complete header.
  if (fsync(descriptor) != 0) return false;
  const std::string nameless = "/proc/self/fd/" + std::to_string(descriptor);
  return linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

bool CreateFileAtomically(const std::string& path, const void* head, size_t headSize, uint64_t length) {
  const int descriptor =
      MoveAboveStdio(open(DirectoryOf(path).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (descriptor < 0) return false;
  const bool born = FillAndLink(descriptor, path, head, headSize, length);
  // Another thread may have opened the file by its name and locked it already.
  CloseWhenUnlocked(descriptor);
  return born;
}

bool CreateExclusive(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) return errno != EEXIST;
  close(descriptor);
  return true;
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
