// A directory of its own for one test. It stays until the test program ends: the library keeps state for each
// file by inode number for as long as the process lives, and a number must not come back for another file.
#pragma once

#include <string>

namespace Kestrun::Testing {

class ScratchDirectory {
 public:
  // Where a directory is made when TMPDIR does not say. Memory is for tests that force thousands of files to
  // the disk and don't care whether it is one.
  enum class Place { Disk, Memory };

  // Makes an empty directory. Ends the program when it can't.
  explicit ScratchDirectory(Place place = Place::Disk);

  // Without a slash at the end.
  const std::string& Path() const { return path_; }
  std::string PathOf(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Kestrun::Testing
