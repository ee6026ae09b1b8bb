#include "storage/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/file_bytes.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::CountDescriptors;
using Testing::ScratchDirectory;
using Testing::WriteFile;

class RemoveDirectoryTreeTest : public testing::Test {
 protected:
  RemoveDirectoryTreeTest() : root_(directory_.PathOf("root")) { Make(""); }

  void Make(const std::string& name) { std::filesystem::create_directories(root_ + "/" + name); }
  void Write(const std::string& name) { WriteFile(root_ + "/" + name, "content"); }
  void Link(const std::string& target, const std::string& name) {
    std::filesystem::create_symlink(target, root_ + "/" + name);
  }
  bool Has(const std::string& name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(root_ + "/" + name));
  }
  bool IsGone() const { return !std::filesystem::exists(root_); }

  const ScratchDirectory directory_;
  const std::string root_;
};

TEST_F(RemoveDirectoryTreeTest, RemovesAnEmptyDirectory) {
  EXPECT_EQ(RemoveDirectoryTree(root_), 0u);
  EXPECT_TRUE(IsGone());
}

TEST_F(RemoveDirectoryTreeTest, RemovesFilesAndDirectoriesAtEveryDepth) {
  Make("a/b/c");
  Make("empty");
  for (const char* name : {"file", ".hidden", "a/file", "a/b/file", "a/b/c/file"}) Write(name);
  const size_t before = CountDescriptors();
  EXPECT_EQ(RemoveDirectoryTree(root_), 0u);
  EXPECT_TRUE(IsGone());
  EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(RemoveDirectoryTreeTest, AMissingDirectoryOrAFileIsStatus3) {
  Write("file");
  EXPECT_EQ(RemoveDirectoryTree(root_ + "/missing"), 3u);
  EXPECT_EQ(RemoveDirectoryTree(root_ + "/file"), 3u);
  EXPECT_TRUE(Has("file"));
}

TEST_F(RemoveDirectoryTreeTest, ASymbolicLinkStaysAndSoDoesItsDirectory) {
  const std::string target = directory_.PathOf("target");
  std::filesystem::create_directory(target);
  WriteFile(target + "/precious", "content");
  Write("file");
  Link(target, "link");
  EXPECT_EQ(RemoveDirectoryTree(root_), 3u);
  EXPECT_TRUE(Has("link"));
  EXPECT_FALSE(Has("file")) << "what could be removed is gone";
  EXPECT_TRUE(std::filesystem::exists(target + "/precious"));
}

TEST_F(RemoveDirectoryTreeTest, ADirectoryThatCantBeEmptiedEndsTheRemoval) {
  Make("inner");
  Link("nowhere", "inner/link");
  const size_t before = CountDescriptors();
  EXPECT_EQ(RemoveDirectoryTree(root_), 3u);
  EXPECT_TRUE(Has("inner/link"));
  EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(RemoveDirectoryTreeTest, APipeStays) {
  ASSERT_EQ(mkfifo((root_ + "/pipe").c_str(), 0600), 0);
  EXPECT_EQ(RemoveDirectoryTree(root_), 3u);
  EXPECT_TRUE(Has("pipe"));
}

TEST(RemoveFilesNamedLikeTest, RemovesWhatContainsTheTextAnywhereInItsName) {
  const ScratchDirectory directory;
  for (const char* name : {"A.blk_v5", "B.blk_v5.tmp", ".blk_v5", "blk_v5", "C.blk_v3"}) {
    WriteFile(directory.PathOf(name), "content");
  }
  std::filesystem::create_directory(directory.PathOf("D.blk_v5"));
  WriteFile(directory.PathOf("D.blk_v5") + "/file", "content");

  EXPECT_EQ(RemoveFilesContaining(directory.Path(), ".blk_v5"), 0u);
  for (const char* name : {"A.blk_v5", "B.blk_v5.tmp", ".blk_v5"}) {
    EXPECT_FALSE(std::filesystem::exists(directory.PathOf(name))) << name;
  }
  for (const char* name : {"blk_v5", "C.blk_v3", "D.blk_v5/file"}) {
    EXPECT_TRUE(std::filesystem::exists(directory.PathOf(name))) << name;
  }
}

TEST(RemoveFilesNamedLikeTest, ADirectoryThatCantBeReadIsStatus3) {
  const ScratchDirectory directory;
  EXPECT_EQ(RemoveFilesContaining(directory.PathOf("missing"), ".blk_v5"), 3u);
}

TEST(RemoveFilesNamedLikeTest, EachCallKeepsOneStreamOpen) {
  const ScratchDirectory directory;
  const size_t before = CountDescriptors();
  EXPECT_EQ(RemoveFilesContaining(directory.Path(), ".blk_v5"), 0u);
  EXPECT_EQ(RemoveFilesContaining(directory.Path(), ".blk_v5"), 0u);
  EXPECT_EQ(CountDescriptors(), before + 2);
}

TEST(SyncDirectoryTest, TellsWhetherThereIsADirectoryToSync) {
  const ScratchDirectory directory;
  WriteFile(directory.PathOf("file"), "content");
  EXPECT_TRUE(SyncDirectory(directory.Path()));
  EXPECT_FALSE(SyncDirectory(directory.PathOf("missing")));
  EXPECT_FALSE(SyncDirectory(directory.PathOf("file")));
}

TEST(DirectoryOfTest, HoldsWhatThePathNamesWithOrWithoutSlashesAtItsEnd) {
  const struct {
    const char* path;
    const char* directory;
  } rows[] = {{"a/b", "a"}, {"/a/b/c", "/a/b"}, {"/a", "/"},   {"a", "."},
              {"a/", "."},  {"/a/b//", "/a"},   {"../a", ".."}};
  for (const auto& row : rows) EXPECT_EQ(DirectoryOf(row.path), row.directory) << row.path;
}

}  // namespace
}  // namespace Kestrun
