// The largest block: offsets and sizes have 32 bits. The sources are small files that declare huge values.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"

namespace Kestrun::Testing {
namespace {

constexpr uint64_t kFourGiB = uint64_t{1} << 32;

class BlockLimitsTest : public BlockTest {
 protected:
  // A block file whose only entry says that its value has `size` bytes. Its file ends long before that.
  std::string Declaring(const std::string& key, uint32_t size) const {
    BlockImage source({{key, ""}});
    source.file.Put32(source.EntryOffset(0) + 4, size);
    source.SealEntry(0);
    return Store(key, source.Bytes());
  }
  uint32_t Merge(const std::vector<std::string>& sources) const {
    Block* block = nullptr;
    const uint32_t status = Block::WriteFromBlocks(PathOf("merged"), sources, &block);
    EXPECT_EQ(block != nullptr, status == kStatusOk);
    delete block;
    return status;
  }
  bool Exists(const std::string& name) const { return access(PathOf(name).c_str(), F_OK) == 0; }
};

TEST_F(BlockLimitsTest, AMergeThatWouldReach4GiBIsRefusedBeforeAnythingIsMade) {
  const std::vector<std::string> sources = {Declaring("a", 0x90000000), Declaring("b", 0x90000000)};
  CapturedStdout output;
  EXPECT_EQ(Merge(sources), kStatusBlockWriteFailed);
  EXPECT_EQ(output.Take(), "");
  EXPECT_FALSE(Exists("merged"));
  EXPECT_TRUE(Exists("a"));
  EXPECT_TRUE(Exists("b"));
}

TEST_F(BlockLimitsTest, ManySourcesThatWrapAroundInSumAreRefused) {
  std::vector<std::string> sources;
  for (int i = 0; i < 40; ++i) sources.push_back(Declaring("k" + std::to_string(10 + i), 0xFFFFFFFF));
  EXPECT_EQ(Merge(sources), kStatusBlockWriteFailed);
  EXPECT_FALSE(Exists("merged"));
}

TEST_F(BlockLimitsTest, WhatIsLeftOutDoesNotCount) {
  const std::string deleted = Store("a newer", BlockImage({{"a", "", true}}).Bytes());
  EXPECT_EQ(Merge({Declaring("a", 0xFFFFFFFF), Declaring("b", 0x10000000), deleted}), kStatusOk);
  EXPECT_TRUE(Exists("merged"));
}

// The key table and the entry table of two entries take a page each; the last byte must have an offset of 32
// bits. The values themselves are cut off by the ends of their files and left out.
TEST_F(BlockLimitsTest, TheLargestBlockEndsInTheLastPageBelow4GiB) {
  const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const auto most = static_cast<uint32_t>(kFourGiB - 2 * page - 156);
  EXPECT_EQ(Merge({Declaring("a", most - 7), Declaring("b", 8)}), kStatusBlockWriteFailed);
  EXPECT_FALSE(Exists("merged"));

  ASSERT_EQ(Merge({Declaring("a", most - 8), Declaring("b", 8)}), kStatusOk);
  struct stat info = {};
  ASSERT_EQ(stat(PathOf("merged").c_str(), &info), 0);
  EXPECT_EQ(static_cast<uint64_t>(info.st_size), kFourGiB - page + 28 + 48) << "only b fits into its file";
  EXPECT_EQ(Load(PathOf("merged"))->Count(), 1u);
}

}  // namespace
}  // namespace Kestrun::Testing
