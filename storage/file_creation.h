// storage/file_creation.h: creates files that several processes may be creating at the same moment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Kestrun {

// Makes the file `path`, mode 0600, `length` bytes long, with `head` at its start and zeros after it, unless
// there is one: nobody ever sees it without its head. False when nothing was made: the file is there already,
// or the file system has no nameless files; then the file must be opened and filled in place.
bool CreateFileAtomically(const std::string& path, const void* head, size_t headSize, uint64_t length);

// Makes the empty file `path`, mode 0600. False when there is a file of that name already; true also when it
// could not be made for another reason, which opening it will report.
bool CreateExclusive(const std::string& path);

// Orders the processes that fill a file in place, for as long as it lives. It lies on the directory and is
// none of the store's locks; where it can't be had within about a second its owner goes on without it.
class [[nodiscard]] DirectoryCreationLock {
 public:
  explicit DirectoryCreationLock(const std::string& directory);
  ~DirectoryCreationLock();
  DirectoryCreationLock(const DirectoryCreationLock&) = delete;
  DirectoryCreationLock& operator=(const DirectoryCreationLock&) = delete;

 private:
  int descriptor_;
};

}  // namespace Kestrun
