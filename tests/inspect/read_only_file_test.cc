#include "inspect/read_only_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

TEST(ReadOnlyFile, ReadsExactlyWhatIsThere) {
  ScratchDirectory scratch;
  WriteFile(scratch.PathOf("f"), "0123456789");
  std::string why;
  const auto file = ReadOnlyFile::Open(scratch.PathOf("f"), &why);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->Size(), 10u);
  char bytes[10] = {};
  EXPECT_TRUE(file->ReadAt(7, bytes, 3));
  EXPECT_EQ(std::string(bytes, 3), "789");
  EXPECT_TRUE(file->ReadAt(10, bytes, 0));
  EXPECT_FALSE(file->ReadAt(7, bytes, 4));
  EXPECT_FALSE(file->ReadAt(11, bytes, 0));
  EXPECT_FALSE(file->ReadAt(UINT64_MAX, bytes, 1));
}

TEST(ReadOnlyFile, RefusesWhatIsNoRegularFileWithoutWaiting) {
  ScratchDirectory scratch;
  std::string why;
  EXPECT_FALSE(ReadOnlyFile::Open(scratch.Path(), &why));
  EXPECT_EQ(why, "not a regular file");
  ASSERT_EQ(mkfifo(scratch.PathOf("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(ReadOnlyFile::Open(scratch.PathOf("pipe"), &why));
  EXPECT_EQ(why, "not a regular file");
  EXPECT_FALSE(ReadOnlyFile::Open(scratch.PathOf("missing"), &why));
  EXPECT_EQ(why, "No such file or directory");
}

TEST(ReadOnlyFile, FailsWhereTheFileHasShrunkMeanwhile) {
  ScratchDirectory scratch;
  const std::string path = scratch.PathOf("f");
  WriteFile(path, std::string(100000, 'x'));
  std::string why;
  const auto file = ReadOnlyFile::Open(path, &why);
  ASSERT_TRUE(file);
  ASSERT_EQ(truncate(path.c_str(), 50000), 0);
  FileWindow window(*file);
  char byte = 0;
  EXPECT_TRUE(window.ReadAt(49999, &byte, 1));
  EXPECT_FALSE(window.ReadAt(50000, &byte, 1));
}

TEST(FileWindow, GivesTheSameBytesAtEveryOffset) {
  ScratchDirectory scratch;
  std::string content;
  for (int i = 0; content.size() < 200000; ++i) content += std::to_string(i) + ",";
  WriteFile(scratch.PathOf("f"), content);
  std::string why;
  const auto file = ReadOnlyFile::Open(scratch.PathOf("f"), &why);
  FileWindow window(*file);
  for (const size_t size : {size_t{1}, size_t{48}, size_t{65536}, size_t{70000}}) {
    for (size_t offset = 0; offset + size <= content.size(); offset += 4099) {
      std::string bytes(size, '\0');
      ASSERT_TRUE(window.ReadAt(offset, bytes.data(), size));
      ASSERT_EQ(bytes, content.substr(offset, size)) << offset << " " << size;
    }
  }
  char byte = 0;
  EXPECT_FALSE(window.ReadAt(content.size(), &byte, 1));
}

}  // namespace
}  // namespace Kestrun::Inspect
