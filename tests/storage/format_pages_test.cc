// The bytes shown in docs/internals/format/wal.md and docs/internals/format/manifest.md are those that the
// store writes and reads.
#include <gtest/gtest.h>

#include "format/key_filter.h"
#include "storage/manifest_journal.h"
#include "tests/storage/manifest_fixture.h"
#include "tests/storage/wal_fixture.h"
#include "tests/support/doc_hex.h"

namespace Kestrun::Testing {
namespace {

constexpr uint64_t kWritten = 1700000000;
constexpr char kName[] = "SEATTLE0WEATHER0BLOCK0NUMBER001";

std::string LogBlock(const std::string& title) {
  return ReadDocHex(KESTRUN_WAL_PAGE, title);
}

std::string ManifestBlock(const std::string& title) {
  return ReadDocHex(KESTRUN_MANIFEST_PAGE, title);
}

using LogPageTest = WalTest;

TEST_F(LogPageTest, TheEmptyLogIsTheOneThatOpeningMakes) {
  EXPECT_EQ(ToHexBlock(LogBlock("empty")), ToHexBlock(LogImage(129).Bytes()));
  OpenWal(path_, 129);
  EXPECT_EQ(ToHexBlock(LogBlock("empty")), ToHexBlock(Bytes()));
}

TEST_F(LogPageTest, TheLogWithOneRecordIsTheOneThatAnInsertionMakes) {
  LogImage image(172);
  image.Append({"k", "abc", false, kWritten, 60});
  EXPECT_EQ(ToHexBlock(LogBlock("one-record")), ToHexBlock(image.Bytes()));

  clock_.Set(kWritten);
  auto wal = OpenWal(path_, 172);
  ASSERT_EQ(Insert(*wal, "k", "abc", 60), kStatusOk);
  EXPECT_EQ(ToHexBlock(LogBlock("one-record")), ToHexBlock(Bytes()));
}

TEST_F(LogPageTest, TheLogWithOneRecordCanBeRead) {
  WriteFile(path_, LogBlock("one-record"));
  auto wal = OpenWal(path_);
  EXPECT_EQ(Keys(*wal), KeyList{"k"});
  EXPECT_EQ(Get(*wal, "k"), "abc");
  DataEntry entry = {};
  ASSERT_TRUE(wal->Lookup(Key("k"), &entry));
  EXPECT_EQ(entry.timestamp, kWritten);
  EXPECT_EQ(entry.ttl, 60u);
}

class ManifestPageTest : public ManifestTest {
 protected:
  const std::vector<uint8_t> filter_ = BuildKeyFilter({KeyHash("k")});
};

TEST_F(ManifestPageTest, TheEmptyManifestIsTheOneThatOpeningMakes) {
  EXPECT_EQ(ToHexBlock(ManifestBlock("empty")), ToHexBlock(ManifestImage().Bytes()));
  OpenManifest(path_);
  EXPECT_EQ(ToHexBlock(ManifestBlock("empty")), ToHexBlock(Bytes()));
}

TEST_F(ManifestPageTest, TheManifestWithOneEntryIsTheOneThatRecordingABlockMakes) {
  ManifestImage image;
  image.Append(kName, std::string(filter_.begin(), filter_.end()), kWritten);
  EXPECT_EQ(ToHexBlock(ManifestBlock("one-entry")), ToHexBlock(image.Bytes()));

  clock_.Set(kWritten);
  auto manifest = OpenManifest(path_);
  ASSERT_EQ(Append(*manifest, kName, std::string(filter_.begin(), filter_.end())), kStatusOk);
  EXPECT_EQ(ToHexBlock(ManifestBlock("one-entry")), ToHexBlock(Bytes()));
}

TEST_F(ManifestPageTest, TheManifestWithOneEntryCanBeRead) {
  WriteFile(path_, ManifestBlock("one-entry"));
  auto manifest = OpenManifest(path_);
  const BlockEntries entries = Entries(*manifest);
  ASSERT_EQ(NamesOf(entries), NameList{kName});
  EXPECT_EQ(entries[0]->filter, filter_);
}

TEST_F(ManifestPageTest, TheSideFileIsTheOneOfAReplacementOfNothing) {
  EXPECT_EQ(ToHexBlock(ManifestBlock("side-file")), ToHexBlock(SideFileBytes(1, "", "")));
  ManifestJournal replacement;
  replacement.generation = 1;
  replacement.oldHash = ManifestJournalHash("", 0);
  ASSERT_EQ(WriteJournal(SidePath(), replacement), kStatusOk);
  EXPECT_EQ(ToHexBlock(ManifestBlock("side-file")), ToHexBlock(ReadFile(SidePath())));
}

}  // namespace
}  // namespace Kestrun::Testing
