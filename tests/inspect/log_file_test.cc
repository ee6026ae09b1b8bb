#include "inspect/log_file.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class LogFileTest : public ::testing::Test {
 protected:
  ReadOnlyFile Open(const std::string& bytes) {
    WriteFile(scratch_.PathOf("wal_v5"), bytes);
    std::string why;
    auto file = ReadOnlyFile::Open(scratch_.PathOf("wal_v5"), &why);
    EXPECT_TRUE(file) << why;
    return std::move(*file);
  }

  LogScan Scan(const std::string& bytes) {
    const ReadOnlyFile file = Open(bytes);
    keys_.clear();
    return ScanLog(file, ReadLogHeader(file).header.used, [this](const LogRecordView& record) {
      keys_.push_back(record.key);
      last_ = record;
      return true;
    });
  }

  ScratchDirectory scratch_;
  std::vector<std::string> keys_;
  LogRecordView last_;
};

TEST_F(LogFileTest, ReadsTheRecordsInTheOrderOfTheirWriting) {
  const LogScan scan = Scan(ForgedLog({{"b", "two"}, {"a", "one"}, {"b", "", true}}, 4096));
  EXPECT_EQ(scan.end, LogEnd::Complete);
  EXPECT_EQ(scan.records, 3u);
  EXPECT_EQ(scan.endOffset, 128u + 44 + 44 + 41);
  EXPECT_EQ(keys_, (std::vector<std::string>{"b", "a", "b"}));
  EXPECT_EQ(last_.header.deleted, 1);
  EXPECT_EQ(last_.header.valueSize, 0u);
  EXPECT_EQ(last_.valueOffset, scan.endOffset);
}

TEST_F(LogFileTest, FindsNothingInAnEmptyLog) {
  const LogScan scan = Scan(ForgedLog({}, 4096));
  EXPECT_EQ(scan.end, LogEnd::Complete);
  EXPECT_EQ(scan.records, 0u);
  EXPECT_EQ(scan.endOffset, 128u);
}

TEST_F(LogFileTest, TellsWhichPartOfTheHeaderIsWrong) {
  const std::string good = ForgedLog({{"k", "v"}});
  EXPECT_TRUE(ReadLogHeader(Open(good)).Usable());

  std::string flipped = good;
  flipped[12] = static_cast<char>(flipped[12] ^ 1);
  EXPECT_TRUE(ReadLogHeader(Open(flipped)).complete);
  EXPECT_FALSE(ReadLogHeader(Open(flipped)).checksumMatches);

  std::string foreign = good;
  foreign[0] = 'X';
  Reseal(&foreign, 0, 16);
  EXPECT_TRUE(ReadLogHeader(Open(foreign)).checksumMatches);
  EXPECT_FALSE(ReadLogHeader(Open(foreign)).magicMatches);

  EXPECT_FALSE(ReadLogHeader(Open(good.substr(0, 23))).complete);
  EXPECT_FALSE(ReadLogHeader(Open("")).Usable());
}

TEST_F(LogFileTest, StopsAtTheFirstRecordThatFailsItsChecksum) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  const size_t second = 128 + 42;
  bytes[second + 16] = static_cast<char>(bytes[second + 16] ^ 1);
  const LogScan scan = Scan(bytes);
  EXPECT_EQ(scan.end, LogEnd::BadChecksum);
  EXPECT_EQ(scan.endOffset, second);
  EXPECT_EQ(keys_, std::vector<std::string>{"a"});
}

TEST_F(LogFileTest, StopsAtARecordWithoutAKey) {
  std::string bytes = ForgedLog({{"a", "1"}, {"", "2"}, {"c", "3"}});
  EXPECT_EQ(Scan(bytes).end, LogEnd::EmptyKey);
  EXPECT_EQ(keys_, std::vector<std::string>{"a"});
}

TEST_F(LogFileTest, StopsAtARecordThatEndsBehindTheFile) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "2"}});
  const size_t second = 128 + 42;
  for (const uint32_t size : {2u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    Set32(&bytes, second + 4, size);
    Reseal(&bytes, second, second + 36);
    const LogScan scan = Scan(bytes);
    EXPECT_EQ(scan.end, LogEnd::OutOfBounds) << size;
    EXPECT_EQ(scan.endOffset, second);
  }
}

TEST_F(LogFileTest, ReadsARecordThatEndsBehindTheUsedAreaAsAStoreDoes) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "22"}});
  Set32(&bytes, 12, Get32(bytes, 12) - 1);
  Reseal(&bytes, 0, 16);
  const LogScan scan = Scan(bytes);
  EXPECT_EQ(scan.end, LogEnd::Complete);
  EXPECT_EQ(scan.records, 2u);
  EXPECT_EQ(scan.endOffset, bytes.size());
}

TEST_F(LogFileTest, StopsWhenTheVisitorDoes) {
  const ReadOnlyFile file = Open(ForgedLog({{"a", "1"}, {"b", "2"}}));
  const LogScan scan = ScanLog(file, file.Size(), [](const LogRecordView&) { return false; });
  EXPECT_EQ(scan.end, LogEnd::Stopped);
  EXPECT_EQ(scan.records, 1u);
}

TEST_F(LogFileTest, ReadsKeysLargerThanItsWindow) {
  const std::string longKey(65535, 'k');
  EXPECT_EQ(Scan(ForgedLog({{longKey, std::string(100000, 'v')}, {"z", "end"}})).records, 2u);
  EXPECT_EQ(keys_, (std::vector<std::string>{longKey, "z"}));
}

}  // namespace
}  // namespace Kestrun::Inspect
