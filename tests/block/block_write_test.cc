// New block files from the log, and what both writers do when they can't write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <random>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_clock.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

using BlockWriteTest = BlockTest;

TEST_F(BlockWriteTest, TheFlushCopiesDeletionMarkersAndExpiredEntriesAsTheyAre) {
  FakeClock clock;
  const uint64_t start = clock.Now();
  const std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "expired", "old", 5), kStatusOk);
  ASSERT_EQ(wal->Delete("marker"), kStatusOk);
  clock.Advance(1000);
  ASSERT_EQ(Insert(*wal, "live", "new", 60), kStatusOk);

  CapturedStdout output;
  const std::unique_ptr<Block> written = WriteFromWal(*wal, "block");
  EXPECT_EQ(output.Take(), "");
  EXPECT_TRUE(ReadFile(PathOf("block")) == BlockImage({{"expired", "old", false, start, 5},
                                                       {"live", "new", false, start + 1000, 60},
                                                       {"marker", "", true, start, 0}})
                                               .Bytes());
  EXPECT_EQ(KeysOf(*written), (std::vector<std::string>{"expired", "live", "marker"}));
  EXPECT_EQ(ReadValue(*written, "live").bytes, "new");
}

TEST_F(BlockWriteTest, TheNewestEntryOfAKeyIsTheOneThatIsWritten) {
  FakeClock clock;
  const std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "a", "old", 1), kStatusOk);
  ASSERT_EQ(Insert(*wal, "a", "newer", 2), kStatusOk);
  ASSERT_EQ(Insert(*wal, "b", "value", 3), kStatusOk);
  ASSERT_EQ(wal->Delete("b"), kStatusOk);
  WriteFromWal(*wal, "block");
  EXPECT_TRUE(ReadFile(PathOf("block")) ==
              BlockImage({{"a", "newer", false, clock.Now(), 2}, {"b", "", true, clock.Now(), 0}}).Bytes());
}

// They lie behind the largest key that scans know; callers rely on the limit being the same everywhere.
TEST_F(BlockWriteTest, KeysFromTheByteFFOnAreNotWritten) {
  FakeClock clock;
  const std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "\xff", "1"), kStatusOk);
  ASSERT_EQ(Insert(*wal, "\xff more", "2"), kStatusOk);
  ASSERT_EQ(Insert(*wal, "\xfe\xff", "3"), kStatusOk);
  ASSERT_EQ(Insert(*wal, std::string("\0", 1), "4"), kStatusOk);
  WriteFromWal(*wal, "block");
  EXPECT_TRUE(ReadFile(PathOf("block")) == BlockImage({{std::string("\0", 1), "4", false, clock.Now()},
                                                       {"\xfe\xff", "3", false, clock.Now()}})
                                               .Bytes());
}

TEST_F(BlockWriteTest, TablesLargerThanAnyBufferAreTheSameBytes) {
  FakeClock clock;
  const std::unique_ptr<Wal> wal = OpenWal(4 * 1024 * 1024);
  std::vector<BlockImageEntry> entries;
  for (int i = 1000; i < 3500; ++i) {
    // Keys of 300 KiB and entries of 120 KiB in all, one key as long as a key can be.
    const std::string key = std::to_string(i) + std::string(i == 2000 ? 65531 : 96, 'k');
    entries.push_back({key, std::string(static_cast<size_t>(i % 7), 'v'), false, clock.Now(), 9});
    ASSERT_EQ(Insert(*wal, key, entries.back().value, 9), kStatusOk);
  }
  const std::unique_ptr<Block> written = WriteFromWal(*wal, "block");
  EXPECT_TRUE(ReadFile(PathOf("block")) == BlockImage(entries).Bytes());
  EXPECT_EQ(written->Count(), 2500u);
  const std::unique_ptr<Block> loaded = Load(PathOf("block"));
  EXPECT_EQ(KeysOf(*loaded), KeysOf(*written));
}

TEST_F(BlockWriteTest, AnyLogGivesTheFileOfItsNewestEntries) {
  std::mt19937_64 random = TestRandom(0);
  FakeClock clock;
  for (uint64_t round = 0; round < TestSize(20, 2000); ++round) {
    const std::unique_ptr<Wal> wal = OpenWal(1024 * 1024, "wal" + std::to_string(round));
    std::map<std::string, BlockImageEntry> newest;
    for (uint64_t i = random() % 300; i-- > 0;) {
      std::string key(1 + random() % 20, '\0');
      for (char& byte : key) byte = static_cast<char>(random() % 3 == 0 ? random() : 'a' + random() % 3);
      if (random() % 4 == 0) {
        ASSERT_EQ(wal->Delete(Key(key)), kStatusOk);
        newest[key] = {key, "", true, clock.Now(), 0};
      } else {
        const std::string value(random() % 4 == 0 ? 0 : random() % 2000, static_cast<char>(random()));
        const auto ttl = static_cast<uint32_t>(random());
        ASSERT_EQ(Insert(*wal, key, value, ttl), kStatusOk);
        newest[key] = {key, value, false, clock.Now(), ttl};
      }
      if (random() % 50 == 0) clock.Advance(1);
    }
    std::vector<BlockImageEntry> entries;
    for (const auto& [key, entry] : newest) {
      if (key[0] != '\xff') entries.push_back(entry);
    }
    const std::string name = "block" + std::to_string(round);
    WriteFromWal(*wal, name);
    ASSERT_TRUE(ReadFile(PathOf(name)) == BlockImage(entries).Bytes()) << "round " << round;
  }
}

TEST_F(BlockWriteTest, AnExistingFileIsOverwrittenFromItsStartAndNotCut) {
  FakeClock clock;
  const std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "key", "value", 7), kStatusOk);
  const BlockImage image({{"key", "value", false, clock.Now(), 7}});
  const size_t size = image.Bytes().size();
  for (const bool fromBlocks : {false, true}) {
    const std::string path = Store("block", std::string(size + 1000, '\x5a'));
    if (fromBlocks) {
      WriteFromBlocks({Store("source", image.Bytes())}, "block");
    } else {
      WriteFromWal(*wal, "block");
    }
    const std::string bytes = ReadFile(path);
    ASSERT_EQ(bytes.size(), size + 1000);
    EXPECT_EQ(bytes.substr(size), std::string(1000, '\x5a'));
    EXPECT_EQ(bytes.substr(0, 161), image.Bytes().substr(0, 161));
    EXPECT_EQ(bytes.substr(image.entryTable, 76), image.Bytes().substr(image.entryTable, 76));
    EXPECT_EQ(ReadValue(*Load(path), "key").bytes, "value");
  }
}

TEST_F(BlockWriteTest, ANewFileBelongsToItsOwnerAlone) {
  WriteFromWal(*OpenWal(), "block");
  struct stat info = {};
  ASSERT_EQ(stat(PathOf("block").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777u, 0600u);
}

class BlockWriteFailureTest : public BlockTest {
 protected:
  BlockWriteFailureTest() : wal_(OpenWal()), source_(Store("source", BlockImage({{"k", "value"}}).Bytes())) {
    EXPECT_EQ(Insert(*wal_, "k", "value"), kStatusOk);
  }

  uint32_t FromWal(const std::string& path) {
    Block* block = nullptr;
    const uint32_t status = Block::WriteFromWal(path, *wal_, &block);
    EXPECT_EQ(block != nullptr, status == kStatusOk);
    delete block;
    return status;
  }
  uint32_t FromBlocks(const std::string& path) const {
    Block* block = nullptr;
    const uint32_t status = Block::WriteFromBlocks(path, {source_}, &block);
    EXPECT_EQ(block != nullptr, status == kStatusOk);
    delete block;
    return status;
  }

  std::unique_ptr<Wal> wal_;
  std::string source_;
};

TEST_F(BlockWriteFailureTest, OnlyTheMergeSaysThatItCannotOpenItsFile) {
  const std::string path = PathOf("missing/block");
  CapturedStdout output;
  EXPECT_EQ(FromWal(path), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "");
  EXPECT_EQ(FromBlocks(path), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "Failed to open destination file: " + path);
}

// Callers tell the two apart by it.
TEST_F(BlockWriteFailureTest, AHeaderThatCannotBeWrittenHasAStatusOfItsOwnInEachWriter) {
  CapturedStdout output;
  EXPECT_EQ(FromWal("/dev/full"), kStatusCreateFailed);
  EXPECT_EQ(FromBlocks("/dev/full"), kStatusBlockWriteFailed);
  EXPECT_EQ(output.Take(), "");
}

TEST_F(BlockWriteFailureTest, AFileThatCannotBeForcedToTheDiskIsAFailure) {
  EXPECT_EQ(FromWal("/dev/null"), kStatusSyncFailed);
  EXPECT_EQ(FromBlocks("/dev/null"), kStatusSyncFailed);
}

// Wherever the disk is full: the header and the content of each section are checked alike.
TEST_F(BlockWriteFailureTest, AFileThatMustEndEarlyIsAFailureWhereverItEnds) {
  const size_t whole = BlockImage({{"k", "value"}}).Bytes().size();
  ChildProcess child([this, whole](ChildLink&) {
    signal(SIGXFSZ, SIG_IGN);
    for (size_t limit = 0; limit <= whole; ++limit) {
      // Every byte where bytes are written, a few of those between.
      if (limit > 200 && limit % 4096 > 150 && limit % 4096 < 4090 && limit % 97 != 0) continue;
      const rlimit most = {limit, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &most);
      std::remove(PathOf("block").c_str());
      const uint32_t expected = limit == whole ? kStatusOk : kStatusBlockWriteFailed;
      EXPECT_EQ(FromWal(PathOf("block")), limit < 128 ? kStatusCreateFailed : expected) << limit;
      std::remove(PathOf("block").c_str());
      EXPECT_EQ(FromBlocks(PathOf("block")), expected) << limit;
    }
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(BlockWriteFailureTest, AValueOutsideTheLogFailsTheFlush) {
  ASSERT_EQ(Insert(*wal_, "another", "x"), kStatusOk);
  // Another process has damaged the log: the record of "another" points far behind its end.
  wal_.reset();
  FileImage log(ReadFile(PathOf("wal_v5")));
  const size_t record = 128 + 40 + 1 + 5;
  log.Put32(record, 0x7FFFFFFF).PutChecksum(record + 36, record, 36);
  WriteFile(PathOf("another_log"), log.Bytes());
  wal_ = OpenWal(64 * 1024, "another_log");

  CapturedStdout output;
  EXPECT_EQ(FromWal(PathOf("block")), kStatusBlockWriteFailed);
  EXPECT_EQ(output.Take(), "wal boundary verification failed");
}

TEST_F(BlockWriteFailureTest, ASourceThatCannotBeReadEndsTheMergeBeforeAnythingIsMade) {
  for (const std::string& source : {PathOf("missing"), directory_.Path(), Store("corrupt", "x")}) {
    Block* block = nullptr;
    CapturedStdout output;
    EXPECT_EQ(Block::WriteFromBlocks(PathOf("merged"), {source_, source}, &block), kStatusBlockWriteFailed);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(output.Take(), "");
    EXPECT_NE(access(PathOf("merged").c_str(), F_OK), 0);
    EXPECT_EQ(access(source.c_str(), F_OK) == 0, source != PathOf("missing")) << "sources are never deleted";
  }
}

}  // namespace
}  // namespace Kestrun::Testing
