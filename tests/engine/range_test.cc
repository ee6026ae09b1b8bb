// Listing and deleting the keys of a range.
#include <gtest/gtest.h>

#include "format/key_filter.h"
#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

class RangeTest : public StoreTest {
 protected:
  FakeClock clock_;
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(RangeTest, TheLowerBoundBelongsToARangeAndTheUpperDoesNot) {
  MakeBlock(*engine_, {{"user-1", ""}, {"user-2", ""}, {"user-3", ""}});
  ASSERT_EQ(Insert(*engine_, "user-4", ""), kStatusOk);
  EXPECT_EQ(Keys(*engine_, "user-1", "user-4"), (Strings{"user-1", "user-2", "user-3"}));
  EXPECT_EQ(Keys(*engine_, "user", "user-9"), (Strings{"user-1", "user-2", "user-3", "user-4"}));
  EXPECT_EQ(Keys(*engine_, "user-2", "user-2"), Strings());
  EXPECT_EQ(Keys(*engine_, "user-4", "user-4"), Strings());
  EXPECT_EQ(Keys(*engine_, "user-3", "user-1"), Strings());
  EXPECT_EQ(Keys(*engine_, "user-11", "user-30"), (Strings{"user-2", "user-3"}));
}

TEST_F(RangeTest, TheOldestBlockComesFirstAndTheLogLast) {
  MakeBlock(*engine_, {{"c", ""}, {"m", ""}});
  MakeBlock(*engine_, {{"a", ""}, {"m", ""}});
  for (const char* key : {"z", "b", "m"}) ASSERT_EQ(Insert(*engine_, key, ""), kStatusOk);
  EXPECT_EQ(Keys(*engine_), (Strings{"c", "m", "a", "m", "b", "m", "z"}));
}

TEST_F(RangeTest, AKeyIsReportedByEachSourceThatHoldsItDeletedAndExpiredOnesToo) {
  MakeBlock(*engine_, {{"key", "1"}});
  ASSERT_EQ(Insert(*engine_, "expired", "value", 0), kStatusOk);
  ASSERT_EQ(engine_->Delete("key"), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "key", "2"), kStatusOk);
  ASSERT_EQ(engine_->Delete("gone"), kStatusOk);
  clock_.Advance(100);
  CapturedStdout output;
  EXPECT_EQ(Keys(*engine_), (Strings{"key", "expired", "key", "gone", "key"}));
  EXPECT_EQ(output.Take(), "");
}

TEST_F(RangeTest, AVisitorThatSaysStopIsAskedAgainByEachFurtherSource) {
  MakeBlock(*engine_, {{"a1", ""}, {"a2", ""}});
  MakeBlock(*engine_, {{"b1", ""}, {"b2", ""}});
  ASSERT_EQ(Insert(*engine_, "c1", ""), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "c2", ""), kStatusOk);
  Strings seen;
  EXPECT_EQ(engine_->EnumerateKeys("a", "z",
                                   [&seen](const Key& key) {
                                     seen.push_back(Text(key));
                                     return true;
                                   }),
            kStatusOk);
  EXPECT_EQ(seen, (Strings{"a1", "b1", "c1"}));
}

TEST_F(RangeTest, BoundsWithTheSamePrimaryAskOnlyTheBlocksThatMayHoldIt) {
  MakeBlock(*engine_, {{"user-1", ""}});
  MakeBlock(*engine_, {{"other-1", ""}});
  // A block that is looked at and found corrupt is deleted, which tells whether it was looked at.
  const std::string other = ListedBlocks()[1];
  const std::string filter = Filter(1);
  ASSERT_FALSE(KeyFilterMayContain(KeyHash("user"), std::vector<uint8_t>(filter.begin(), filter.end())));
  engine_.reset();
  WriteFile(PathOf(other), "corrupt");
  engine_ = Open();
  EXPECT_EQ(Keys(*engine_, "user-1", "user-9"), Strings{"user-1"});
  EXPECT_TRUE(Exists(other));
  EXPECT_EQ(Keys(*engine_, "a", "z"), Strings{"user-1"});
  EXPECT_FALSE(Exists(other));
}

// Kept: what a filter knows of a key is the key and its primary, so a range whose bounds have a shorter
// primary in common passes over blocks that hold keys of a longer one only. The log knows all of them.
TEST_F(RangeTest, BoundsWithTheSamePrimaryMissKeysWithALongerPrimaryInBlocks) {
  MakeBlock(*engine_, {{"user-1-a", ""}});
  const std::string filter = Filter(0);
  ASSERT_FALSE(KeyFilterMayContain(KeyHash("user"), std::vector<uint8_t>(filter.begin(), filter.end())));
  ASSERT_EQ(Insert(*engine_, "user-1-b", ""), kStatusOk);
  EXPECT_EQ(Keys(*engine_, "user-0", "user-9"), Strings{"user-1-b"});
  EXPECT_EQ(Keys(*engine_, "user-0", "user."), (Strings{"user-1-a", "user-1-b"})) << "two primaries";
}

TEST_F(RangeTest, KeysOfAnyBytesAreListedInTheOrderOfTheirBytes) {
  for (const std::string& key : {std::string("\x80"), std::string("\x7f"), std::string("a"),
                                 std::string("a\0", 2), std::string("\0", 1), std::string("\xff")}) {
    ASSERT_EQ(Insert(*engine_, key, ""), kStatusOk);
  }
  EXPECT_EQ(Keys(*engine_), (Strings{std::string("\0", 1), "a", std::string("a\0", 2), "\x7f", "\x80"}));
  EXPECT_EQ(Keys(*engine_, "", Key(std::string("\xff\xff"))).back(), "\xff") << "the log holds it";
}

TEST_F(RangeTest, ABlockThatCannotBeReadIsPassedOverInSilence) {
  MakeBlock(*engine_, {{"a", ""}});
  MakeBlock(*engine_, {{"b", ""}});
  const std::string first = PathOf(ListedBlocks()[0]);
  engine_.reset();
  std::filesystem::rename(first, first + ".away");
  std::filesystem::create_directory(first);
  engine_ = Open();
  CapturedStdout output;
  EXPECT_EQ(Keys(*engine_), Strings{"b"});
  EXPECT_EQ(output.Take(), "");
  EXPECT_TRUE(std::filesystem::is_directory(first));
}

TEST_F(RangeTest, AnEmptyVisitorAbortsWhenABlockHoldsAKeyOfTheRange) {
  MakeBlock(*engine_, {{"key", ""}});
  EXPECT_EXIT(engine_->EnumerateKeys("a", "z", nullptr), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(engine_->EnumerateKeys("l", "z", nullptr), kStatusOk);
}

TEST_F(RangeTest, DeletingARangeLeavesNoneOfItsKeysAndAllOthers) {
  MakeBlock(*engine_, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  ASSERT_EQ(Insert(*engine_, "b2", "4"), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "d", "5"), kStatusOk);
  EXPECT_EQ(engine_->DeleteByRange("b", "d"), kStatusOk);
  for (const char* key : {"b", "b2", "c"}) {
    EXPECT_FALSE(engine_->Contains(key)) << key;
    EXPECT_EQ(Value(*engine_, key), "<none>");
  }
  EXPECT_EQ(Value(*engine_, "a"), "1");
  EXPECT_EQ(Value(*engine_, "d"), "5");
}

TEST_F(RangeTest, DeletingAnEmptyRangeWritesNothing) {
  MakeBlock(*engine_, {{"a", "1"}});
  ASSERT_EQ(Insert(*engine_, "z", "2"), kStatusOk);
  const auto before = Contents();
  EXPECT_EQ(engine_->DeleteByRange("b", "y"), kStatusOk);
  EXPECT_EQ(engine_->DeleteByRange("a", "a"), kStatusOk);
  EXPECT_EQ(engine_->DeleteByRange("z", "a"), kStatusOk);
  EXPECT_TRUE(Contents() == before);
}

TEST_F(RangeTest, AKeyInSeveralSourcesGetsSeveralDeletionMarkers) {
  MakeBlock(*engine_, {{"key", "1"}});
  MakeBlock(*engine_, {{"key", "2"}});
  ASSERT_EQ(Insert(*engine_, "key", "3"), kStatusOk);
  const uint32_t used = LogUsed();
  EXPECT_EQ(engine_->DeleteByRange("k", "l"), kStatusOk);
  EXPECT_EQ(LogUsed(), used + 3 * 43);
  EXPECT_EQ(engine_->DeleteByRange("k", "l"), kStatusOk);
  EXPECT_EQ(LogUsed(), used + 6 * 43) << "keys that are deleted already get another one";
}

TEST_F(RangeTest, DeletingARangeFlushesAsOftenAsItMust) {
  CapturedStdout output;
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(Insert(*engine_, "key" + std::to_string(i), std::string(40, 'v')), kStatusOk);
  }
  EXPECT_EQ(engine_->DeleteByRange("key1", "key2"), kStatusOk);
  for (int i = 0; i < 200; ++i) {
    const std::string key = "key" + std::to_string(i);
    EXPECT_EQ(engine_->Contains(key), key[3] != '1') << key;
  }
}

TEST_F(RangeTest, DeletingARangeIsASuccessWhateverHappens) {
  ASSERT_EQ(Insert(*engine_, "key", std::string(3000, 'v')), kStatusOk);
  for (int i = 0; i < 12; ++i) ASSERT_EQ(Insert(*engine_, "filler", std::string(20, 'f')), kStatusOk);
  while (LogUsed() + 43 <= kWalSize) ASSERT_EQ(engine_->Delete("x"), kStatusOk);
  std::filesystem::rename(path_, path_ + ".away");
  CapturedStdout output;
  EXPECT_EQ(engine_->DeleteByRange("k", "l"), kStatusOk);
  EXPECT_EQ(output.Take(), "Wal is fullFailed to reserve write space\nFailed to dump wal file");
  std::filesystem::rename(path_ + ".away", path_);
  EXPECT_TRUE(engine_->Contains("key"));
}

}  // namespace
}  // namespace Kestrun::Testing
