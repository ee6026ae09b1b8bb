#include "storage/file_descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Kestrun {
namespace {

// The descriptors below this one are the standard streams.
constexpr int kFirstUsableDescriptor = 3;

int OpenUninterrupted(const std::string& path, int openFlags) {
  int descriptor;
  do {
    descriptor = open(path.c_str(), openFlags, 0600);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

// A file that has no record has no section either, and gets none while the registry is locked.
void CloseByInode(int descriptor, std::unique_ptr<DeferredClose> room) noexcept {
  struct stat info = {};
  if (fstat(descriptor, &info) != 0) {
    close(descriptor);
    return;
  }
  InodeInfo* inode = nullptr;
  InodeRegistry<InodeInfo>::WithExisting(InodeIdOf(info), [&](InodeInfo* found) {
    inode = found;
    if (found == nullptr) close(descriptor);
  });
  if (inode != nullptr) inode->CloseWhenUnlocked(descriptor, std::move(room));
}

}  // namespace

InodeId InodeIdOf(const struct stat& info) {
  return {static_cast<uint64_t>(info.st_dev), static_cast<uint64_t>(info.st_ino)};
}

FileDescriptor::FileDescriptor()
    : room_(std::make_unique<DeferredClose>()), roomOfLow_(std::make_unique<DeferredClose>()) {}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      wasStandardInput_(other.wasStandardInput_),
      inode_(other.inode_),
      room_(std::move(other.room_)),
      roomOfLow_(std::move(other.roomOfLow_)) {}

bool FileDescriptor::Open(const std::string& path, int openFlags) noexcept {
  descriptor_ = OpenUninterrupted(path, openFlags | O_CLOEXEC);
  if (descriptor_ < 0) return false;
  if (descriptor_ >= kFirstUsableDescriptor) return true;
  const int low = std::exchange(descriptor_, -1);
  wasStandardInput_ = low == 0;
  descriptor_ = fcntl(low, F_DUPFD_CLOEXEC, kFirstUsableDescriptor);
  const int error = errno;
  CloseByInode(low, std::move(roomOfLow_));
  errno = error;
  return descriptor_ >= 0;
}

void FileDescriptor::Close() noexcept {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor < 0) return;
  if (inode_ != nullptr) {
    inode_->CloseWhenUnlocked(descriptor, std::move(room_));
  } else {
    CloseByInode(descriptor, std::move(room_));
  }
}

}  // namespace Kestrun
