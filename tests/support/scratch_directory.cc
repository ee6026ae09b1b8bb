#include "tests/support/scratch_directory.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace Kestrun::Testing {
namespace {

// Removes the directories at the end of the program that made them; a forked child leaves them alone.
class Directories {
 public:
  ~Directories() {
    if (getpid() != owner_) return;
    std::error_code ignored;
    for (const std::string& path : paths_) std::filesystem::remove_all(path, ignored);
  }

  void Add(const std::string& path) { paths_.push_back(path); }

 private:
  const pid_t owner_ = getpid();
  std::vector<std::string> paths_;
};

std::string ParentOf(ScratchDirectory::Place place) {
  const char* parent = std::getenv("TMPDIR");
  if (parent != nullptr && *parent != '\0') return parent;
  const bool inMemory = place == ScratchDirectory::Place::Memory && access("/dev/shm", W_OK) == 0;
  return inMemory ? "/dev/shm" : "/tmp";
}

}  // namespace

ScratchDirectory::ScratchDirectory(Place place) {
  static Directories directories;
  path_ = ParentOf(place) + "/kestrun-test-XXXXXX";
  if (mkdtemp(path_.data()) == nullptr) {
    std::perror(path_.c_str());
    std::exit(EXIT_FAILURE);
  }
  directories.Add(path_);
}

}  // namespace Kestrun::Testing
