// The files of the store that a target runs its operations on.
#pragma once

#include <string>

#include "tests/fuzz/fuzz_support.h"

namespace Kestrun::Fuzzing {

inline constexpr char kFirstBlock[] = "FIRST00000000000000000000000000";
inline constexpr char kSecondBlock[] = "SECOND0000000000000000000000000";

// One store directory for all inputs of a program.
class StoreFiles {
 public:
  // Forgets what the library knows of the files from the input before.
  void StartOver();

  void PutLog(const std::string& bytes) { directory_.Put("wal_v5", bytes); }
  void PutManifest(const std::string& bytes) { directory_.Put("manifest_v5", bytes); }
  // No bytes: no side file.
  void PutSideFile(const std::string& bytes);
  void PutBlock(const char* name, const std::string& bytes) {
    directory_.Put(std::string(name) + ".blk_v5", bytes);
  }
  void Remove(const char* name) { directory_.Remove(name); }
  void RemoveBlock(const char* name) { directory_.Remove(std::string(name) + ".blk_v5"); }
  const std::string& Path() const { return directory_.Path(); }

 private:
  Directory directory_;
};

}  // namespace Kestrun::Fuzzing
