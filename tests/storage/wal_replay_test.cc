// How the records of a log that others have written enter the index, whatever they look like.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "tests/storage/wal_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class WalReplayTest : public WalTest {
 protected:
  WalReplayTest() : WalTest(ScratchDirectory::Place::Memory) {}

  // The log as one finds it that nobody of this process has had open.
  std::unique_ptr<Wal> OpenLog(const LogImage& image) {
    const std::string path = NewPath();
    WriteFile(path, image.Bytes());
    return OpenWal(path);
  }

  // Changes bytes of an open log behind its back, as another process does.
  static void Change(Wal& wal, size_t offset, const std::string& bytes) {
    const int descriptor = open(wal.File()->Path().c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(bytes.size()));
    close(descriptor);
  }
  static void Change(Wal& wal, const LogImage& image) { Change(wal, 0, image.Bytes()); }
};

TEST_F(WalReplayTest, TheNewestRecordOfAKeyCounts) {
  LogImage image(1000);
  image.Append({"a", "old"});
  image.Append({"b", "stays"});
  image.Append({"a", "new"});
  image.Append({"c", "gone"});
  image.Append({"c", "", true});
  auto wal = OpenLog(image);
  EXPECT_EQ(Get(*wal, "a"), "new");
  EXPECT_EQ(Get(*wal, "b"), "stays");
  EXPECT_EQ(Get(*wal, "c"), kDeleted);
  EXPECT_EQ(Keys(*wal), (KeyList{"a", "b", "c"}));
}

TEST_F(WalReplayTest, AnyNonZeroDeletedByteIsAMarkerAndPaddingHasNoMeaning) {
  LogImage image(1000);
  const size_t offset = image.Append({"k", "v"});
  image.file.Put8(offset + 8, 0x40);
  image.file.PutBytes(offset + 9, std::string(7, 'p')).Put32(offset + 28, 77).Put16(offset + 34, 99);
  image.SealRecord(offset);
  const size_t next = image.Append({"l", "w"});
  image.file.PutBytes(next + 9, std::string(7, 'p')).Put32(next + 28, 77).Put16(next + 34, 99);
  image.SealRecord(next);
  auto wal = OpenLog(image);
  EXPECT_EQ(Get(*wal, "k"), kDeleted);
  EXPECT_EQ(Get(*wal, "l"), "w");
}

TEST_F(WalReplayTest, TheOffsetOfAValueIsTakenFromItsRecord) {
  LogImage image(1000);
  image.Append({"target", "other bytes"});
  const size_t offset = image.Append({"k", "value"});
  image.file.Put32(offset, 128 + 46);
  image.SealRecord(offset);
  auto wal = OpenLog(image);
  EXPECT_EQ(Get(*wal, "k"), "other");
}

TEST_F(WalReplayTest, AValueOffsetOutsideTheLogIsFoundWhenTheValueIsRead) {
  LogImage image(1000);
  const size_t offset = image.Append({"k", "value"});
  for (const uint32_t where : {996u, 1000u, 0xFFFFFFFFu, 0xFFFFFFFEu}) {
    image.file.Put32(offset, where);
    image.SealRecord(offset);
    auto wal = OpenLog(image);
    CapturedStdout output;
    const std::string value = Get(*wal, "k");
    EXPECT_EQ(value, "<status 2>") << where;
    EXPECT_EQ(output.Take(), "wal boundary verification failed") << where;
  }
}

TEST_F(WalReplayTest, EveryFlippedByteOfARecordsHeaderHidesItAndWhatFollows) {
  LogImage image(1000);
  image.Append({"before", "1"});
  const size_t offset = image.Append({"damaged", "2"});
  image.Append({"behind", "3"});
  for (size_t i = 0; i < 48; ++i) {
    LogImage damaged = image;
    damaged.file.Bytes()[offset + i] = static_cast<char>(damaged.file.Bytes()[offset + i] ^ 0x20);
    auto wal = OpenLog(damaged);
    if (i < 40) {
      EXPECT_EQ(Keys(*wal), KeyList{"before"}) << i;
    } else {
      EXPECT_EQ(Keys(*wal).size(), 3u) << "keys and values are covered by nothing";
    }
  }
}

TEST_F(WalReplayTest, WhatIsAppendedBehindADamagedRecordIsKnownToItsOwnProcessUntilTheReset) {
  LogImage image(1000);
  const size_t offset = image.Append({"damaged", "1"});
  image.file.Put8(offset + 20, 0x55);
  auto wal = OpenLog(image);
  ASSERT_EQ(Insert(*wal, "own", "2"), kStatusOk);
  ASSERT_EQ(Insert(*wal, "another", "3"), kStatusOk);
  EXPECT_EQ(Keys(*wal), (KeyList{"another", "own"}));
  EXPECT_EQ(Get(*wal, "own"), "2");
  // A process that opens the log finds none of it.
  const std::string copy = NewPath();
  WriteFile(copy, ReadFile(wal->File()->Path()));
  EXPECT_EQ(Keys(*OpenWal(copy)), KeyList());
  ASSERT_EQ(Reset(*wal), kStatusOk);
  ASSERT_EQ(Insert(*wal, "own", "4"), kStatusOk);
  EXPECT_EQ(Keys(*wal), KeyList{"own"});
}

TEST_F(WalReplayTest, ARecordWithoutAKeyEndsTheReplay) {
  LogImage image(1000);
  image.Append({"before", "1"});
  image.Append({"", "2"});
  image.Append({"behind", "3"});
  EXPECT_EQ(Keys(*OpenLog(image)), KeyList{"before"});
}

// Sizes that no writer makes must not lead the replay outside the log, nor around in a circle.
TEST_F(WalReplayTest, SizesThatReachBeyondTheUsedAreaEndTheReplay) {
  const struct {
    uint16_t keySize;
    uint32_t valueSize;
  } rows[] = {{0xFFFF, 1},          {8, 800},          {8, 0x7FFFFFFF},     {8, 0xFFFFFFFF},
              {8, 0xFFFFFFFF - 47}, {8, 0u - 48u - 1}, {0xFFFF, 0xFFFFFFFF}};
  for (const auto& row : rows) {
    LogImage image(1000);
    image.Append({"before", "1"});
    const size_t offset = image.Append({"too long", "2"});
    image.Append({"behind", "3"});
    image.file.Put16(offset + 32, row.keySize).Put32(offset + 4, row.valueSize);
    image.SealRecord(offset);
    auto wal = OpenLog(image);
    EXPECT_EQ(Keys(*wal), KeyList{"before"}) << row.keySize << " " << row.valueSize;
    EXPECT_EQ(Insert(*wal, "own", "4"), kStatusOk);
    EXPECT_EQ(Keys(*wal), (KeyList{"before", "own"})) << row.keySize << " " << row.valueSize;
  }
}

// Otherwise its key would get a value that lies inside newer records, once the used area has grown over it.
TEST_F(WalReplayTest, ASoundRecordThatEndedTheReplayEndsItForGoodOnceSomethingIsAppended) {
  LogImage image(1000);
  image.Append({"before", "1"});
  const size_t offset = image.Append({"too long", std::string(100, 'x')});
  image.SetUsed(static_cast<uint32_t>(offset + 40 + 8 + 50));
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal), KeyList{"before"});
  ASSERT_EQ(Insert(*wal, "own", std::string(200, 'y')), kStatusOk);
  EXPECT_EQ(Keys(*wal), (KeyList{"before", "own"}));
  const std::string copy = NewPath();
  WriteFile(copy, ReadFile(wal->File()->Path()));
  EXPECT_EQ(Keys(*OpenWal(copy)), KeyList{"before"});
}

TEST_F(WalReplayTest, ARecordThatEndsWithTheUsedAreaCountsAndOneByteBeyondDoesNot) {
  LogImage image(1000);
  image.Append({"k", "value"});
  const uint32_t end = image.Used();
  EXPECT_EQ(Keys(*OpenLog(image)), KeyList{"k"});
  image.SetUsed(end - 1);
  EXPECT_EQ(Keys(*OpenLog(image)), KeyList());
  image.SetUsed(128 + 40);
  EXPECT_EQ(Keys(*OpenLog(image)), KeyList());
}

TEST_F(WalReplayTest, AUsedAreaBeyondTheFileIsReplayedUpToTheFilesEnd) {
  LogImage image(1000);
  image.Append({"inside", "1"});
  const size_t offset = image.Append({"beyond", "2"});
  for (const size_t length : {offset + 1, offset + 39, offset + 40, offset + 41, offset + 46}) {
    LogImage cut = image;
    cut.SetUsed(0xFFFFFFFF);
    cut.file.Bytes().resize(length);
    auto wal = OpenLog(cut);
    EXPECT_EQ(Keys(*wal), KeyList{"inside"}) << length;
    EXPECT_EQ(AnswerOf([&] { return Insert(*wal, "k", "v"); }), (CallResult{3330, kNoRoom}));
  }
}

TEST_F(WalReplayTest, ALogWhoseUsedAreaEndsBeforeItsFirstRecordIsEmpty) {
  for (const uint32_t used : {0u, 24u, 127u}) {
    LogImage image(1000);
    image.Append({"k", "v"});
    image.SetUsed(used);
    EXPECT_EQ(Keys(*OpenLog(image)), KeyList()) << used;
  }
}

TEST_F(WalReplayTest, RandomBytesNeverLeadOutsideTheLog) {
  std::mt19937_64 random = TestRandom(1);
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const uint64_t rounds = TestSize(2000, 200000);
  for (uint64_t round = 0; round < rounds; ++round) {
    LogImage image(400);
    for (size_t i = 128; i < 400; ++i) image.file.Put8(i, static_cast<uint8_t>(random()));
    // Plausible records among the noise, some with sizes that lie.
    for (size_t offset = 128; offset + 48 <= 400; offset += 40 + below(60)) {
      image.file.Put32(offset + 4, below(3) == 0 ? static_cast<uint32_t>(random()) : below(60));
      image.file.Put16(offset + 32, static_cast<uint16_t>(below(4) == 0 ? random() : below(9)));
      image.SealRecord(offset);
    }
    image.SetUsed(below(8) == 0 ? static_cast<uint32_t>(random()) : 128 + below(300));
    auto wal = OpenLog(image);
    CapturedStdout output;
    const KeyList keys = Keys(*wal);
    for (const std::string& key : keys) Get(*wal, key);
    const bool fits = Insert(*wal, "own", "value") == kStatusOk;
    const std::string own = Get(*wal, "own");
    output.Take();
    if (fits && own != "value") ADD_FAILURE() << "round " << round << ": " << own;
  }
}

TEST_F(WalReplayTest, WhatAnotherProcessAppendsIsFoundByTheNextLook) {
  LogImage image(1000);
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal), KeyList());
  image.Append({"first", "1"});
  Change(*wal, image);
  EXPECT_EQ(Get(*wal, "first"), "1");
  image.Append({"second", "2"});
  image.Append({"first", "newer"});
  Change(*wal, image);
  EXPECT_EQ(Keys(*wal), (KeyList{"first", "second"}));
  EXPECT_EQ(Get(*wal, "first"), "newer");
}

// What others wrote before must not come to lie over one's own newer entry.
TEST_F(WalReplayTest, AnAppendCatchesUpFirst) {
  LogImage image(1000);
  image.Append({"k", "v1 of another process"});
  const size_t torn = image.Append({"torn", ""});
  image.file.Put8(torn + 36, 0);
  auto wal = OpenLog(image);
  ASSERT_EQ(Insert(*wal, "k", "v2"), kStatusOk);
  EXPECT_EQ(Get(*wal, "k"), "v2");
  EXPECT_EQ(Get(*wal, "k"), "v2");
}

TEST_F(WalReplayTest, ADamagedHeaderHidesWhatWasAppendedUntilItIsSoundAgain) {
  LogImage image(1000);
  auto wal = OpenLog(image);
  image.Append({"k", "v"});
  LogImage damaged = image;
  damaged.file.Put8(16, static_cast<uint8_t>(image.file.Get32(16) + 1));
  Change(*wal, damaged);
  EXPECT_EQ(AnswerOf([&] { return Keys(*wal).empty() ? 0u : 1u; }), (CallResult{0, ""}));
  Change(*wal, image);
  EXPECT_EQ(Keys(*wal), KeyList{"k"});
}

TEST_F(WalReplayTest, AShorterUsedAreaMeansThatOthersHaveEmptiedTheLog) {
  LogImage image(1000);
  image.Append({"old", "1"});
  image.Append({"older", "2"});
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal).size(), 2u);
  image.SetUsed(128);
  Change(*wal, image);
  EXPECT_EQ(Keys(*wal), KeyList());
  image.Append({"new", "3"});
  Change(*wal, image);
  EXPECT_EQ(Keys(*wal), KeyList{"new"});
  EXPECT_EQ(Get(*wal, "old"), kMissing);
}

TEST_F(WalReplayTest, AnotherFirstOrLastRecordMeansThatOthersHaveFilledTheLogAgain) {
  LogImage image(1000);
  image.Append({"one", "1"});
  image.Append({"two", "2"});
  {
    SCOPED_TRACE("another first record");
    auto wal = OpenLog(image);
    EXPECT_EQ(Keys(*wal).size(), 2u);
    LogImage other(1000);
    for (const char* key : {"new", "two", "more", "and more"}) other.Append({key, "3"});
    Change(*wal, other);
    EXPECT_EQ(Keys(*wal), (KeyList{"and more", "more", "new", "two"}));
  }
  {
    SCOPED_TRACE("another last record");
    auto wal = OpenLog(image);
    EXPECT_EQ(Keys(*wal).size(), 2u);
    LogImage other(1000);
    for (const char* key : {"one", "new"}) other.Append({key, "4"});
    Change(*wal, other);
    EXPECT_EQ(Keys(*wal), (KeyList{"new", "one"}));
    EXPECT_EQ(Get(*wal, "one"), "4");
  }
}

TEST_F(WalReplayTest, AnotherRecordInThePlaceOfAWantedOneMeansTheSame) {
  LogImage image(1000);
  for (const char* key : {"one", "two", "three"}) image.Append({key, "1"});
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal).size(), 3u);
  LogImage other(1000);
  for (const char* key : {"one", "new", "three"}) other.Append({key, "2"});
  Change(*wal, other);
  EXPECT_EQ(Get(*wal, "two"), kMissing);
  EXPECT_EQ(Keys(*wal), (KeyList{"new", "one", "three"}));
}

// Between a first and a last record that are the same in both logs, "two" is another record in each of these.
TEST_F(WalReplayTest, AnotherRecordIsToldByKeyLengthTimeAndPlaceOfItsValue) {
  const struct {
    const char* what;
    LogImageRecord record;
    LogImageRecord filler;  // brings the last record to its old place
    std::string found;
  } rows[] = {{"a longer key", {"twos", "ab"}, {"pad", "abc"}, kMissing},
              {"a longer value", {"two", "longer"}, {"pad", ""}, "longer"},
              {"a later time", {"two", "new", false, 1700000001}, {"pad", "abc"}, "new"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    LogImage image(1000);
    for (const char* key : {"one", "two", "pad", "three"}) image.Append({key, "abc"});
    auto wal = OpenLog(image);
    EXPECT_EQ(Keys(*wal).size(), 4u);
    LogImage other(1000);
    other.Append({"one", "abc"});
    other.Append(row.record);
    other.Append(row.filler);
    other.Append({"three", "abc"});
    ASSERT_EQ(other.Used(), image.Used());
    Change(*wal, other);
    EXPECT_EQ(Get(*wal, "two"), row.found);
    EXPECT_EQ(Keys(*wal).size(), 4u);
  }
}

TEST_F(WalReplayTest, AMoveOfTheManifestByOthersMakesTheReplayStartOver) {
  LogImage image(1000);
  for (const char* key : {"one", "two", "three"}) image.Append({key, "1"});
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal).size(), 3u);
  LogImage other(1000);
  for (const char* key : {"one", "new", "three"}) other.Append({key, "2"});
  Change(*wal, other);
  wal->OnManifestChanges(1);
  EXPECT_EQ(Keys(*wal), (KeyList{"new", "one", "three"}));
  EXPECT_EQ(Get(*wal, "new"), "2");
}

TEST_F(WalReplayTest, NoNewMoveOfTheManifestLeavesTheIndexAlone) {
  LogImage image(1000);
  const size_t offset = image.Append({"damaged later", "1"});
  auto wal = OpenLog(image);
  wal->OnManifestChanges(3);
  EXPECT_EQ(Keys(*wal), KeyList{"damaged later"});
  Change(*wal, offset, "x");
  wal->OnManifestChanges(3);
  EXPECT_EQ(Keys(*wal), KeyList{"damaged later"});
}

// Nobody has emptied the log: the entry stays, and so does its value.
TEST_F(WalReplayTest, ARecordThatIsMerelyDamagedAfterItsReplayKeepsItsEntry) {
  LogImage image(1000);
  const size_t first = image.Append({"first", "1"});
  const size_t middle = image.Append({"middle", "2"});
  const size_t last = image.Append({"last", "3"});
  for (const size_t offset : {first, middle, last}) {
    for (size_t i = 0; i < 40; ++i) {
      auto wal = OpenLog(image);
      EXPECT_EQ(Keys(*wal).size(), 3u);
      Change(*wal, offset + i, std::string(1, static_cast<char>(image.Bytes()[offset + i] ^ 0x20)));
      EXPECT_EQ(Keys(*wal).size(), 3u) << offset << "+" << i;
      EXPECT_EQ(Get(*wal, "first") + Get(*wal, "middle") + Get(*wal, "last"), "123") << offset << "+" << i;
    }
  }
}

// Behind a damaged first record nothing is ever replayed, only appended; that others have emptied the log
// must show all the same.
TEST_F(WalReplayTest, OthersHaveEmptiedALogWhoseFirstRecordWasDamaged) {
  LogImage image(1000);
  const size_t torn = image.Append({"torn", "1"});
  image.file.Put8(torn + 36, 0);
  {
    auto wal = OpenLog(image);
    ASSERT_EQ(Insert(*wal, "own", "2"), kStatusOk);
    Change(*wal, 0, LogImage(1000).Bytes().substr(0, 24));
    EXPECT_EQ(Get(*wal, "own"), kMissing);
    EXPECT_EQ(Keys(*wal), KeyList());
  }
  {
    auto wal = OpenLog(image);
    ASSERT_EQ(Insert(*wal, "own", "2"), kStatusOk);
    LogImage other(1000);
    for (int i = 0; i < 10; ++i) other.Append({"new " + std::to_string(i), "3"});
    Change(*wal, other);
    EXPECT_EQ(Get(*wal, "own"), kMissing);
    EXPECT_EQ(Keys(*wal).size(), 10u);
  }
}

TEST_F(WalReplayTest, ALogThatOthersHaveMadeLongerIsMappedAnew) {
  LogImage image(1000);
  image.Append({"before", "1"});
  auto wal = OpenLog(image);
  EXPECT_EQ(Keys(*wal), KeyList{"before"});
  image.file.Bytes().resize(5000);
  image.Append({"across", std::string(2000, 'x')});
  image.Append({"beyond", "2"});
  Change(*wal, image);
  EXPECT_EQ(Keys(*wal), (KeyList{"across", "before", "beyond"}));
  EXPECT_EQ(Get(*wal, "across"), std::string(2000, 'x'));
  EXPECT_EQ(wal->Capacity(), 5000u);
  EXPECT_EQ(Insert(*wal, "own", std::string(1500, 'y')), kStatusOk);
  EXPECT_EQ(Get(*wal, "own"), std::string(1500, 'y'));
}

TEST_F(WalReplayTest, AnAppendFollowsALongerLogToo) {
  LogImage image(1000);
  auto wal = OpenLog(image);
  image.file.Bytes().resize(5000);
  image.Append({"across", std::string(2000, 'x')});
  Change(*wal, image);
  EXPECT_EQ(Insert(*wal, "own", "v"), kStatusOk);
  EXPECT_EQ(Keys(*wal), (KeyList{"across", "own"}));
}

}  // namespace
}  // namespace Kestrun::Testing
