// storage/file_descriptor.h: an open descriptor of a file of the store.
//
// Ownership: one owner; moves. It is closed when the owner goes, as InodeInfo::CloseWhenUnlocked does it.
// Threads:   one at a time.
// Failure:   the constructor may throw std::bad_alloc, nothing else does: what closing needs is allocated
//            before there is anything to close.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "storage/file_lock.h"

namespace Kestrun {

// What tells the file apart that was inspected.
InodeId InodeIdOf(const struct stat& info);

class FileDescriptor {
 public:
  FileDescriptor();
  ~FileDescriptor() { Close(); }
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&&) = delete;

  // Opens `path` with a mode of 0600 above the standard streams, onto which the host and the library may
  // print, and closed on exec. False with errno when that fails. An instance opens one file in its life.
  [[nodiscard]] bool Open(const std::string& path, int openFlags) noexcept;
  // Whether the system gave it the number of standard input, before it was moved.
  bool WasStandardInput() const { return wasStandardInput_; }
  // Tells whose descriptor it is, so that closing need not look.
  void SetInode(InodeInfo* inode) { inode_ = inode; }

  int Get() const { return descriptor_; }
  // Once; later calls do nothing.
  void Close() noexcept;

 private:
  int descriptor_ = -1;
  bool wasStandardInput_ = false;
  InodeInfo* inode_ = nullptr;
  std::unique_ptr<DeferredClose> room_;
  std::unique_ptr<DeferredClose>
      roomOfLow_;  // for the descriptor of a standard stream that it was opened with
};

}  // namespace Kestrun
