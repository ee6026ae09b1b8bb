#include <gtest/gtest.h>

#include <cstring>

#include "tests/storage/wal_fixture.h"

namespace Kestrun::Testing {
namespace {

constexpr uint32_t kSize = 1000;

class WalAppendTest : public WalTest {
 protected:
  WalAppendTest() : wal_(OpenWal(path_, kSize)), image_(kSize) {}

  // Replaces the bytes of the open log.
  void Overwrite(const LogImage& image) {
    std::unique_ptr<OsFile> file;
    OsFile* opened = nullptr;
    ASSERT_EQ(OsFile::Open(path_, kOpenReadWrite, &opened), kStatusOk);
    file.reset(opened);
    const auto size = static_cast<ssize_t>(image.Bytes().size());
    ASSERT_EQ(file->PWriteFully(image.Bytes().data(), image.Bytes().size(), 0), size);
  }

  DataEntry EntryOf(const std::string& key) {
    DataEntry entry = {};
    EXPECT_TRUE(wal_->Lookup(Key(key), &entry)) << key;
    return entry;
  }

  std::unique_ptr<Wal> wal_;
  LogImage image_;  // what the file should be
};

TEST_F(WalAppendTest, RecordsFollowEachOtherByteForByte) {
  const uint64_t now = clock_.Now();
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "user-1", "first value", 60); }), (CallResult{0, ""}));
  image_.Append({"user-1", "first value", false, now, 60});
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));

  clock_.Advance(5);
  EXPECT_EQ(AnswerOf([&] { return Delete(*wal_, "k"); }), (CallResult{0, ""}));
  image_.Append({"k", "", true, now + 5, 0});
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));

  EXPECT_EQ(Insert(*wal_, std::string("\0\xFF\x80", 3), "", 0xFFFFFFFF), kStatusOk);
  image_.Append({std::string("\0\xFF\x80", 3), "", false, now + 5, 0xFFFFFFFF});
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
}

TEST_F(WalAppendTest, ARecordThatEndsExactlyAtTheCapacityFitsAndOneByteMoreDoesNot) {
  const std::string fits(kSize - 128 - 40 - 1, 'v');
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "k", fits + "v"); }), (CallResult{3330, kNoRoom}));
  EXPECT_EQ(Bytes(), image_.Bytes());
  EXPECT_EQ(Get(*wal_, "k"), kMissing);
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "k", fits); }), (CallResult{0, ""}));
  image_.Append({"k", fits, false, clock_.Now(), kTtl});
  EXPECT_EQ(image_.Used(), kSize);
  EXPECT_EQ(Bytes(), image_.Bytes());
  EXPECT_EQ(Get(*wal_, "k"), fits);
  EXPECT_EQ(AnswerOf([&] { return Delete(*wal_, "k"); }), (CallResult{3330, kNoRoom}));
  EXPECT_EQ(Get(*wal_, "k"), fits);
}

TEST_F(WalAppendTest, ASizeThatWouldWrapIn32BitsDoesNotFit) {
  ASSERT_EQ(Insert(*wal_, "before", "value"), kStatusOk);
  const std::string before = Bytes();
  const std::string value = "v";
  for (const uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFFu - 100, 0xFFFFFFFFu - 200, 0x80000000u}) {
    const FileLockGuard lock(wal_->File(), LockLevel::Exclusive);
    EXPECT_EQ(AnswerOf([&] { return wal_->Insert(Key("k"), 1, value.data(), size); }),
              (CallResult{3330, kNoRoom}));
  }
  EXPECT_EQ(Bytes(), before);
  EXPECT_EQ(Keys(*wal_), KeyList{"before"});
}

TEST_F(WalAppendTest, KeysCountModulo65536) {
  auto wal = OpenWal(NewPath(), 1 << 20);
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal, "", "v"); }), (CallResult{2, "Invalid key"}));
  EXPECT_EQ(AnswerOf([&] { return Delete(*wal, ""); }), (CallResult{2, "Invalid key"}));
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal, std::string(65536, 'x'), "v"); }),
            (CallResult{2, "Invalid key"}));
  EXPECT_EQ(Keys(*wal), KeyList());
  EXPECT_EQ(Insert(*wal, std::string(65537, 'x'), "one"), kStatusOk);
  EXPECT_EQ(Get(*wal, "x"), "one");
  EXPECT_EQ(ReadFile(wal->File()->Path()).substr(128 + 32, 2), std::string("\x01\0", 2));
  EXPECT_EQ(Insert(*wal, std::string(65535, 'x'), "long"), kStatusOk);
  EXPECT_EQ(Get(*wal, std::string(65535, 'x')), "long");
  EXPECT_EQ(Get(*wal, "x"), "one");
}

TEST_F(WalAppendTest, AMovedFromKeyIsAnEmptyKey) {
  Key key(std::string(40, 'k'));
  const Key taken = std::move(key);
  EXPECT_EQ(AnswerOf([&] { return wal_->Insert(key, 1, "v", 1); }), (CallResult{2, "Invalid key"}));
  EXPECT_EQ(Bytes(), image_.Bytes());
}

TEST_F(WalAppendTest, TheSameKeyTwiceLeavesOneEntryThatPointsAtTheSecondRecord) {
  ASSERT_EQ(Insert(*wal_, "k", "first"), kStatusOk);
  ASSERT_EQ(Insert(*wal_, "k", "second"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), KeyList{"k"});
  EXPECT_EQ(Get(*wal_, "k"), "second");
  EXPECT_EQ(EntryOf("k").valueOffset, 128u + 46 + 41);
}

TEST_F(WalAppendTest, AnEntryTellsWhereItsValueLiesAndHowLongItLives) {
  ASSERT_EQ(Insert(*wal_, "key", "value", 60), kStatusOk);
  const DataEntry entry = EntryOf("key");
  EXPECT_EQ(entry.valueOffset, 128u + 40 + 3);
  EXPECT_EQ(entry.valueSize, 5u);
  EXPECT_FALSE(entry.deleted);
  EXPECT_EQ(entry.timestamp, clock_.Now());
  EXPECT_EQ(entry.ttl, 60u);
}

TEST_F(WalAppendTest, ADeletedKeyIsFoundAsADeletionMarkerWithoutAValue) {
  ASSERT_EQ(Insert(*wal_, "k", "v"), kStatusOk);
  ASSERT_EQ(Delete(*wal_, "k"), kStatusOk);
  ASSERT_EQ(Delete(*wal_, "never there"), kStatusOk);
  for (const char* key : {"k", "never there"}) {
    EXPECT_TRUE(EntryOf(key).deleted);
    EXPECT_EQ(EntryOf(key).valueSize, 0u);
    EXPECT_EQ(EntryOf(key).ttl, 0u);
  }
  EXPECT_EQ(Keys(*wal_), (KeyList{"k", "never there"}));
  ASSERT_EQ(Insert(*wal_, "k", "again"), kStatusOk);
  EXPECT_EQ(Get(*wal_, "k"), "again");
}

TEST_F(WalAppendTest, AMissingKeyLeavesTheEntryAlone) {
  DataEntry entry = {};
  entry.ttl = 77;
  EXPECT_FALSE(wal_->Lookup(Key("k"), &entry));
  EXPECT_EQ(entry.ttl, 77u);
}

TEST_F(WalAppendTest, ADamagedHeaderRefusesEveryAppendAndStopsNoLookup) {
  ASSERT_EQ(Insert(*wal_, "k", "v"), kStatusOk);
  for (size_t offset = 0; offset < 20; ++offset) {
    const std::string sound = Bytes();
    std::string damaged = sound;
    damaged[offset] = static_cast<char>(damaged[offset] ^ 0x10);
    LogImage image(kSize);
    image.file = FileImage(damaged);
    Overwrite(image);
    EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "new", "v"); }), (CallResult{2818, kBadHeader})) << offset;
    EXPECT_EQ(AnswerOf([&] { return Delete(*wal_, "k"); }), (CallResult{2818, kBadHeader})) << offset;
    uint32_t at = 0;
    EXPECT_EQ(AnswerOf([&] { return wal_->Reserve(1, &at); }), (CallResult{2818, "Invalid wal checksum"}));
    EXPECT_EQ(Get(*wal_, "k"), "v") << offset;
    EXPECT_EQ(Keys(*wal_), KeyList{"k"}) << offset;
    EXPECT_EQ(Bytes(), damaged);
    image.file = FileImage(sound);
    Overwrite(image);
  }
}

TEST_F(WalAppendTest, AUsedAreaThatWouldTakeInTheHeaderIsRefused) {
  for (const uint32_t used : {0u, 1u, 12u, 23u}) {
    image_.SetUsed(used);
    Overwrite(image_);
    EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "k", "v"); }), (CallResult{2818, kBadHeader})) << used;
    EXPECT_EQ(Bytes(), image_.Bytes());
    EXPECT_EQ(Keys(*wal_), KeyList());
  }
}

TEST_F(WalAppendTest, AUsedAreaBeyondTheFileIsAFullLog) {
  for (const uint32_t used : {kSize, kSize + 1, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    image_.SetUsed(used);
    Overwrite(image_);
    EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "k", "v"); }), (CallResult{3330, kNoRoom})) << used;
    EXPECT_EQ(Bytes(), image_.Bytes());
    EXPECT_EQ(Keys(*wal_), KeyList());
    uint32_t at = 0;
    EXPECT_EQ(AnswerOf([&] { return wal_->Reserve(1, &at); }), (CallResult{3330, "Wal is full"})) << used;
  }
}

TEST_F(WalAppendTest, UpdatesCarryTheReservedFieldAndEveryOtherHeaderByteOver) {
  image_.file.Put32(20, 0xAABBCCDD).Put32(8, 9).PutBytes(24, std::string(104, 'x'));
  image_.SealHeader();
  Overwrite(image_);
  ASSERT_EQ(Insert(*wal_, "k", "v"), kStatusOk);
  image_.Append({"k", "v", false, clock_.Now(), kTtl});
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
}

TEST_F(WalAppendTest, ReservingClaimsBytesWithoutWritingThem) {
  uint32_t offset = 0;
  EXPECT_EQ(wal_->Reserve(100, &offset), kStatusOk);
  EXPECT_EQ(offset, 128u);
  EXPECT_EQ(wal_->Reserve(0, &offset), kStatusOk);
  EXPECT_EQ(offset, 228u);
  EXPECT_EQ(wal_->Reserve(kSize - 228, &offset), kStatusOk);
  EXPECT_EQ(offset, 228u);
  image_.SetUsed(kSize);
  EXPECT_EQ(Bytes(), image_.Bytes());
  offset = 5;
  EXPECT_EQ(AnswerOf([&] { return wal_->Reserve(1, &offset); }), (CallResult{3330, "Wal is full"}));
  EXPECT_EQ(AnswerOf([&] { return wal_->Reserve(0xFFFFFFFF, &offset); }), (CallResult{3330, "Wal is full"}));
  EXPECT_EQ(offset, 5u);
  EXPECT_EQ(Bytes(), image_.Bytes());
}

TEST_F(WalAppendTest, ResettingWritesAFreshHeaderAndLeavesTheRecordsBytes) {
  ASSERT_EQ(Insert(*wal_, "first", "old"), kStatusOk);
  ASSERT_EQ(Insert(*wal_, "second", "old"), kStatusOk);
  const std::string before = Bytes();
  EXPECT_EQ(AnswerOf([&] { return Reset(*wal_); }), (CallResult{0, ""}));
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes().substr(0, 24) + before.substr(24)));
  EXPECT_EQ(Keys(*wal_), KeyList());
  ASSERT_EQ(Insert(*wal_, "third", "new"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), KeyList{"third"});
  EXPECT_EQ(EntryOf("third").valueOffset, 128u + 45);
}

TEST_F(WalAppendTest, ResettingMendsADamagedHeader) {
  image_.file.Put32(0, 1).Put32(8, 2).Put32(16, 3).Put32(20, 4);
  Overwrite(image_);
  EXPECT_EQ(Reset(*wal_), kStatusOk);
  EXPECT_EQ(ToHex(Bytes()), ToHex(LogImage(kSize).Bytes()));
}

TEST_F(WalAppendTest, AValueOutsideTheMappingIsRefusedAlsoWhereTheSumWouldWrap) {
  const struct {
    uint32_t offset;
    uint32_t size;
    bool inside;
  } rows[] = {{0, kSize, true},       {kSize, 0, true},
              {kSize - 1, 1, true},   {0, kSize + 1, false},
              {kSize, 1, false},      {kSize + 1, 0, false},
              {1, 0xFFFFFFFF, false}, {900, 0xFFFFFFFF - 100, false},
              {0xFFFFFFFF, 1, false}, {0xFFFFFFFF, 0xFFFFFFFF, false}};
  for (const auto& row : rows) {
    DataEntry entry = {};
    entry.valueOffset = row.offset;
    entry.valueSize = row.size;
    char untouched = 0;
    void* value = &untouched;
    const CallResult answer = AnswerOf([&] { return wal_->ReadValue(entry, &value); });
    if (row.inside) {
      EXPECT_EQ(answer, (CallResult{0, ""})) << row.offset << "+" << row.size;
      ASSERT_NE(value, &untouched);
      EXPECT_EQ(std::memcmp(value, image_.Bytes().data() + row.offset, row.size), 0);
      std::free(value);
    } else {
      EXPECT_EQ(answer, (CallResult{2, "wal boundary verification failed"})) << row.offset << "+" << row.size;
      EXPECT_EQ(value, &untouched);
      EXPECT_EQ(AnswerOf([&] { return wal_->ViewValue(entry) == nullptr ? 1u : 0u; }),
                (CallResult{1, "wal boundary verification failed"}));
    }
  }
}

TEST_F(WalAppendTest, AWalkIsAscendingHalfOpenAndShowsDeletionMarkers) {
  for (const char* key : {"d", "b", "a", "c", "ab"}) ASSERT_EQ(Insert(*wal_, key, "v"), kStatusOk);
  ASSERT_EQ(Delete(*wal_, "c"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), (KeyList{"a", "ab", "b", "c", "d"}));
  EXPECT_EQ(Keys(*wal_, "ab", "d"), (KeyList{"ab", "b", "c"}));
  EXPECT_EQ(Keys(*wal_, "aa", "bb"), (KeyList{"ab", "b"}));
  EXPECT_EQ(Keys(*wal_, "b", "b"), KeyList());
  EXPECT_EQ(Keys(*wal_, "d", "a"), KeyList());
  EXPECT_EQ(Keys(*wal_, "e", "z"), KeyList());
}

TEST_F(WalAppendTest, AWalkEndsWithTheFirstVisitThatReturnsTrue) {
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(Insert(*wal_, key, "v"), kStatusOk);
  int visits = 0;
  wal_->Enumerate(Key("a"), Key("z"), [&](const Key&) { return ++visits == 1; });
  EXPECT_EQ(visits, 1);
  visits = 0;
  wal_->Enumerate(Key("a"), Key("z"), [&](const Key&) { return ++visits == 2; });
  EXPECT_EQ(visits, 2);
  wal_->Enumerate(Key("a"), Key("z"), nullptr);
}

TEST_F(WalAppendTest, AWalkWithEntriesShowsThoseOfTheIndex) {
  ASSERT_EQ(Insert(*wal_, "a", "one"), kStatusOk);
  ASSERT_EQ(Delete(*wal_, "b"), kStatusOk);
  ASSERT_EQ(Insert(*wal_, "c", "three"), kStatusOk);
  std::string seen;
  wal_->ForEachEntry(Key("a"), Key("c"), [&](const Key& key, const DataEntry& entry) {
    seen.append(reinterpret_cast<const char*>(key.Data()), key.Size());
    seen += entry.deleted ? '-' : static_cast<char>('0' + entry.valueSize);
    return false;
  });
  EXPECT_EQ(seen, "a3b-");
}

TEST_F(WalAppendTest, AVisitMayAppendAndTheWalkGoesOnAtTheNextKey) {
  for (const char* key : {"a", "c"}) ASSERT_EQ(Insert(*wal_, key, "v"), kStatusOk);
  KeyList seen;
  wal_->Enumerate(Key("a"), Key("z"), [&](const Key& key) {
    seen.emplace_back(reinterpret_cast<const char*>(key.Data()), key.Size());
    if (seen.size() == 1) {
      EXPECT_EQ(wal_->Insert(Key("b"), 1, "v", 1), kStatusOk);
      EXPECT_EQ(wal_->Delete(Key("a")), kStatusOk);
      EXPECT_EQ(wal_->Insert(Key("0"), 1, "v", 1), kStatusOk);
    }
    return false;
  });
  EXPECT_EQ(seen, (KeyList{"a", "b", "c"}));
}

TEST_F(WalAppendTest, AVisitMayEmptyTheLogAndEvenFillItAgain) {
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(Insert(*wal_, key, "v"), kStatusOk);
  KeyList seen;
  wal_->Enumerate(Key("a"), Key("z"), [&](const Key& key) {
    seen.emplace_back(reinterpret_cast<const char*>(key.Data()), key.Size());
    EXPECT_EQ(wal_->Reset(), kStatusOk);
    // The key of the visit stays readable although its entry is gone.
    EXPECT_EQ(seen.back(), std::string(reinterpret_cast<const char*>(key.Data()), key.Size()));
    if (seen.size() == 1) {
      EXPECT_EQ(wal_->Insert(Key("d"), 1, "v", 1), kStatusOk);
      EXPECT_EQ(wal_->Insert(Key("0"), 1, "v", 1), kStatusOk);
    }
    return false;
  });
  EXPECT_EQ(seen, (KeyList{"a", "d"}));
  EXPECT_EQ(Keys(*wal_), KeyList());
}

TEST_F(WalAppendTest, AVisitThatThrowsLeavesTheLogUsable) {
  ASSERT_EQ(Insert(*wal_, "a", "v"), kStatusOk);
  EXPECT_THROW(
      {
        const FileLockGuard lock(wal_->File(), LockLevel::Shared);
        wal_->Enumerate(Key("a"), Key("z"), [](const Key&) -> bool { throw 1; });
      },
      int);
  EXPECT_EQ(Insert(*wal_, "b", "v"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), (KeyList{"a", "b"}));
}

}  // namespace
}  // namespace Kestrun::Testing
