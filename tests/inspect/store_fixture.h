// A store of forged files: a log with two entries, a block with three that the manifest lists, a schema.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/inspect/forged_files.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

class ForgedStore : public ::testing::Test {
 protected:
  static constexpr uint64_t kNow = kForgedTime + 100;
  static constexpr uint64_t kPage = 4096;

  ForgedStore() {
    Put("wal_v5", ForgedLog({{"user-3", "in the log"}, {"user-1", "", true}}, 1024));
    Put(block_, ForgedBlock({{"user", "whole"}, {"user-1", "one"}, {"user-2", "two"}}));
    Put("manifest_v5", ForgedManifest({{name_, ForgedFilter({"user", "user-1", "user-2"})}}));
    Put("meta_v5", "1#Point x:%i4,y:%i4\n");
  }

  const std::string& Path() const { return scratch_.Path(); }
  void Put(const std::string& name, const std::string& bytes) {
    files_[name] = bytes;
    WriteFile(scratch_.PathOf(name), bytes);
  }
  void Remove(const std::string& name) { ASSERT_EQ(std::remove(scratch_.PathOf(name).c_str()), 0); }
  std::string Bytes(const std::string& name) { return files_[name]; }

  ScratchDirectory scratch_;
  const std::string name_ = ForgedName('A');
  const std::string block_ = name_ + ".blk_v5";
  std::map<std::string, std::string> files_;
};

}  // namespace Kestrun::Testing
