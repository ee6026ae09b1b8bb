// How the log becomes a block.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "block/block.h"
#include "format/key_filter.h"
#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

class FlushTest : public StoreTest {
 protected:
  bool FilterAccepts(size_t block, const std::string& key) const {
    const std::string filter = Filter(block);
    return KeyFilterMayContain(KeyHash(key), std::vector<uint8_t>(filter.begin(), filter.end()));
  }

  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(FlushTest, AFullLogBecomesExactlyOneNewBlock) {
  CapturedStdout output;
  int inserted = 0;
  for (; BlockFiles().empty(); ++inserted) {
    ASSERT_EQ(Insert(*engine_, "key" + std::to_string(inserted), std::to_string(inserted)), kStatusOk);
  }
  EXPECT_EQ(output.Take(), "Wal is fullFailed to reserve write space\n");
  EXPECT_EQ(BlockFiles().size(), 1u);
  EXPECT_EQ(ListedBlocks(), BlockFiles());
  EXPECT_EQ(Generation(), 1u);
  const std::string last = std::to_string(inserted - 1);
  EXPECT_EQ(LogUsed(), 128u + 40 + 3 + 2 * last.size());
  EXPECT_EQ(engine_->FindBlock("key" + last), nullptr);
  for (int i = 0; i < inserted; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(Value(*engine_, "key" + number), number);
    EXPECT_EQ(engine_->FindBlock("key" + number) != nullptr, i < inserted - 1) << i;
  }
  ChildProcess other([&](ChildLink&) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    for (int i = 0; i < inserted; ++i) {
      if (Value(*engine, "key" + std::to_string(i)) != std::to_string(i)) return 1;
    }
    return 0;
  });
  EXPECT_EQ(other.Wait(), 0);
}

TEST_F(FlushTest, ANewBlockIsNamedWith31DigitsAndCapitalLetters) {
  MakeBlocks(*engine_, 3);
  for (const std::string& name : BlockFiles()) {
    ASSERT_EQ(name.size(), 31 + 7u);
    EXPECT_EQ(name.substr(0, 31).find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"),
              std::string::npos);
    EXPECT_EQ(name.substr(31), ".blk_v5");
  }
}

TEST_F(FlushTest, TheNewestBlockIsListedLast) {
  MakeBlock(*engine_, {{"a", "1"}});
  const Strings first = ListedBlocks();
  MakeBlock(*engine_, {{"a", "2"}});
  ASSERT_EQ(ListedBlocks().size(), 2u);
  EXPECT_EQ(ListedBlocks()[0], first[0]);
  EXPECT_EQ(Generation(), 2u);
  EXPECT_EQ(Value(*engine_, "a"), "2");
}

TEST_F(FlushTest, AnEmptyLogBecomesAnEmptyBlock) {
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(Filter(0), std::string(8, '\0') + '\x05');
  EXPECT_EQ(FileImage(ReadFile(PathOf(BlockFiles()[0]))).Get32(128 + 20), 28u);
  EXPECT_EQ(LogUsed(), 128u);
}

// Kept, and said in lsdb.h: such keys lie beyond what scans of a block see.
TEST_F(FlushTest, KeysThatBeginWithTheByteFFDoNotSurviveAFlush) {
  ASSERT_EQ(Insert(*engine_, "\xff", "lost"), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "\xff-1", "lost"), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "\xfe-1", "kept"), kStatusOk);
  EXPECT_EQ(Value(*engine_, "\xff"), "lost");
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(Value(*engine_, "\xff"), "<none>");
  EXPECT_EQ(engine_->FindBlock("\xff"), nullptr);
  EXPECT_FALSE(engine_->Contains("\xff-1"));
  EXPECT_EQ(Value(*engine_, "\xfe-1"), "kept");
}

TEST_F(FlushTest, APrimaryEntersTheFilterOnceForEachOfItsKeys) {
  for (int i = 0; i < 50; ++i) ASSERT_EQ(Insert(*engine_, "user-" + std::to_string(i), ""), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "whole", ""), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(Filter(0).size(), 50 + 50 + 1 + 1u) << "one byte for each, and the number of probes";
  for (int i = 0; i < 50; ++i) EXPECT_TRUE(FilterAccepts(0, "user-" + std::to_string(i)));
  EXPECT_TRUE(FilterAccepts(0, "user"));
  EXPECT_TRUE(FilterAccepts(0, "whole"));
}

TEST_F(FlushTest, DeletionMarkersAreFlushedLikeAnyEntry) {
  MakeBlock(*engine_, {{"key", "value"}});
  ASSERT_EQ(engine_->Delete("key"), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 2u);
  EXPECT_FALSE(engine_->Contains("key"));
  DataEntry entry = {};
  EXPECT_EQ(engine_->GetDataEntry("key", entry), kStatusOk);
  EXPECT_TRUE(entry.deleted);
  // A marker expires like any entry, here as soon as the next second begins.
  const std::string value = Value(*engine_, "key");
  EXPECT_TRUE(value == "<none>" || value == "<status 2>") << value;
}

TEST_F(FlushTest, ABlockThatCannotBeWrittenLeavesTheLogWhole) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  std::filesystem::rename(path_, path_ + ".away");
  CapturedStdout output;
  EXPECT_EQ(engine_->ResetWal(), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "Failed to dump wal file");
  EXPECT_EQ(Insert(*engine_, "large", std::string(kWalSize, 'l')), kStatusOpenFailed)
      << "the status of the flush, without another try";
  EXPECT_EQ(output.Take(), "Wal is fullFailed to reserve write space\nFailed to dump wal file");
  std::filesystem::rename(path_ + ".away", path_);
  EXPECT_TRUE(BlockFiles().empty());
  EXPECT_EQ(Value(*engine_, "key"), "value");
  EXPECT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(Value(*engine_, "key"), "value");
}

TEST_F(FlushTest, ABlockThatCannotBeRecordedLeavesTheLogWhole) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  const FileImage sound = Manifest();
  const auto flip = [this](char byte) {
    const int file = open(PathOf("manifest_v5").c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(pwrite(file, &byte, 1, 20), 1);
    close(file);
  };
  flip(static_cast<char>(sound.Bytes()[20] ^ 1));
  CapturedStdout output;
  EXPECT_EQ(engine_->ResetWal(), kStatusManifestChecksum);
  EXPECT_EQ(output.Take(), "Invalid manifest header checksumFailed to update manifest");
  EXPECT_EQ(BlockFiles().size(), 1u) << "the file stays, in no list";
  EXPECT_EQ(LogUsed(), 128u + 40 + 3 + 5);
  flip(sound.Bytes()[20]);
  EXPECT_TRUE(Manifest().Bytes() == sound.Bytes());
  EXPECT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles().size(), 2u);
  EXPECT_EQ(Value(*engine_, "key"), "value");
}

// The block that was just written is not read again.
TEST_F(FlushTest, AFlushedBlockIsInTheCache) {
  MakeBlock(*engine_, {{"key", "value"}});
  std::filesystem::remove(PathOf(BlockFiles()[0]));
  EXPECT_EQ(Value(*engine_, "key"), "value");
  EXPECT_EQ(Value(*Open(), "key"), "<none>");
}

TEST_F(FlushTest, ManyGenerationsOfTheLogKeepEverything) {
  CapturedStdout output;
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(Insert(*engine_, "key" + std::to_string(i % 100), std::string(80, 'v') + std::to_string(i)),
              kStatusOk);
  }
  EXPECT_GE(ListedBlocks().size(), 10u);
  for (int i = 400; i < 500; ++i) {
    EXPECT_EQ(Value(*engine_, "key" + std::to_string(i % 100)), std::string(80, 'v') + std::to_string(i));
  }
}

}  // namespace
}  // namespace Kestrun::Testing
