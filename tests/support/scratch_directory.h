// A directory of its own for one test. It stays until the test program ends: the library keeps state for each
// file by inode number for as long as the process lives, and a number must not come back for another file.
#pragma once

#include <string>

namespace Kestrun::Testing {

class ScratchDirectory {
 public:
  // Makes an empty directory below TMPDIR, or /tmp. Ends the program when it can't.
  ScratchDirectory();

  // Without a slash at the end.
  const std::string& Path() const { return path_; }
  std::string PathOf(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Kestrun::Testing
