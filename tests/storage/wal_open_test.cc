#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "tests/storage/wal_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

class WalOpenTest : public WalTest {
 protected:
  explicit WalOpenTest(ScratchDirectory::Place place = ScratchDirectory::Place::Disk) : WalTest(place) {}

  CallResult Open(uint32_t walSize) { return Open(path_, walSize); }
  CallResult Open(const std::string& path, uint32_t walSize) {
    return AnswerOf([&] { return OpenWal(path, walSize, &wal_); });
  }
  bool HasHandle() const { return wal_ != nullptr; }

  std::unique_ptr<Wal> wal_;
};

// With a file for every byte.
class WalDamageTest : public WalOpenTest {
 protected:
  WalDamageTest() : WalOpenTest(ScratchDirectory::Place::Memory) {}
};

TEST_F(WalOpenTest, AMissingLogIsMadeWithTheGivenLengthAndAnEmptyHeader) {
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  EXPECT_EQ(wal_->Capacity(), 1000u);
  EXPECT_EQ(wal_->Options(), 7u);
  EXPECT_EQ(ToHex(Bytes()), ToHex(LogImage(1000).Bytes()));
  EXPECT_EQ(Keys(*wal_), KeyList());
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(WalOpenTest, AnEmptyOrShortFileIsMadeTheLogAndKeepsWhatLiesBehindTheHeader) {
  for (const size_t length : {0, 1, 23, 24, 127, 128, 500, 999}) {
    const std::string path = NewPath();
    WriteFile(path, std::string(length, 'x'));
    EXPECT_EQ(Open(path, 1000), (CallResult{0, ""})) << length;
    std::string expected = LogImage(1000).Bytes();
    for (size_t i = 24; i < length; ++i) expected[i] = 'x';
    EXPECT_EQ(ToHex(ReadFile(path)), ToHex(expected)) << length;
    ASSERT_TRUE(HasHandle());
    EXPECT_EQ(Insert(*wal_, "k", "v"), kStatusOk);
    EXPECT_EQ(Get(*wal_, "k"), "v");
  }
}

TEST_F(WalOpenTest, ALogOf128BytesIsRefusedAndOneOf129HoldsNothing) {
  for (const uint32_t size : {0u, 1u, 127u, 128u}) {
    EXPECT_EQ(Open(size), (CallResult{2, "invalid wal size: " + path_})) << size;
    EXPECT_FALSE(HasHandle());
    EXPECT_EQ(Bytes(), "") << "the file was opened, and thereby created, before";
  }
  EXPECT_EQ(Open(129), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  EXPECT_EQ(AnswerOf([&] { return Insert(*wal_, "k", ""); }), (CallResult{3330, kNoRoom}));
  EXPECT_EQ(AnswerOf([&] { return Delete(*wal_, "k"); }), (CallResult{3330, kNoRoom}));
  EXPECT_EQ(Bytes(), LogImage(129).Bytes());
}

TEST_F(WalOpenTest, ARefusedSizeLeavesAnExistingLogAlone) {
  LogImage image(1000);
  image.Append({"k", "v"});
  Put(image);
  EXPECT_EQ(Open(128), (CallResult{2, "invalid wal size: " + path_}));
  EXPECT_EQ(Bytes(), image.Bytes());
}

TEST_F(WalOpenTest, WhatCantBeOpenedIs770AlsoWithASizeThatWouldBeRefused) {
  std::filesystem::create_directory(path_);
  for (const std::string& path : {path_, directory_.PathOf("missing/wal_v5")}) {
    EXPECT_EQ(Open(path, 1000), (CallResult{770, ""}));
    EXPECT_EQ(Open(path, 128), (CallResult{770, ""}));
    EXPECT_FALSE(HasHandle());
  }
}

TEST_F(WalOpenTest, ALongerLogIsMappedWhole) {
  LogImage image(5000);
  image.Append({"k", "v"});
  Put(image);
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  EXPECT_EQ(wal_->Capacity(), 5000u);
  EXPECT_EQ(Get(*wal_, "k"), "v");
  EXPECT_EQ(Bytes(), image.Bytes());
}

TEST_F(WalOpenTest, ALargerSizeMakesTheHeaderAnewAndGivesTheRecordsUp) {
  LogImage image(1000);
  image.Append({"k", "v"});
  Put(image);
  EXPECT_EQ(Open(1001), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  EXPECT_EQ(Get(*wal_, "k"), kMissing);
  std::string expected = LogImage(1001).Bytes();
  expected.replace(24, 1000 - 24, image.Bytes().substr(24));
  EXPECT_EQ(ToHex(Bytes()), ToHex(expected)) << "the bytes of the records stay";
}

TEST_F(WalOpenTest, ALogThatWasOpenWhenItWasMadeAnewIsEmptyForItsHandleToo) {
  auto first = OpenWal(path_, 1000);
  ASSERT_EQ(Insert(*first, "k", "v"), kStatusOk);
  EXPECT_EQ(Open(2000), (CallResult{0, ""}));
  EXPECT_EQ(Get(*wal_, "k"), kMissing);
  EXPECT_EQ(Get(*first, "k"), kMissing);
  EXPECT_EQ(Insert(*wal_, "later", std::string(1500, 'v')), kStatusOk);
  EXPECT_EQ(Get(*first, "later"), std::string(1500, 'v')) << "the first handle follows the longer file";
}

TEST_F(WalOpenTest, AWrongChecksumIs2818WhateverTheMagicAndAWrongMagicIs3586) {
  LogImage image(1000);
  image.file.Put8(16, static_cast<uint8_t>(image.file.Get32(16) + 1));
  Put(image);
  EXPECT_EQ(Open(1000), (CallResult{2818, "Invalid wal checksum"}));
  EXPECT_FALSE(HasHandle());

  image.file.Put8(0, 'k');
  Put(image);
  EXPECT_EQ(Open(1000), (CallResult{2818, "Invalid wal checksum"}));

  image.SealHeader();
  Put(image);
  EXPECT_EQ(Open(1000), (CallResult{3586, "Invalid wal magic"}));
  EXPECT_FALSE(HasHandle());
  EXPECT_EQ(Bytes(), image.Bytes());
}

TEST_F(WalOpenTest, TheNulOfTheMagicCounts) {
  LogImage image(1000);
  image.file.Put8(7, 1);
  image.SealHeader();
  Put(image);
  EXPECT_EQ(Open(1000), (CallResult{3586, "Invalid wal magic"}));
}

TEST_F(WalOpenTest, VersionUsedAndReservedAreNotLookedAt) {
  for (const uint32_t number : {0u, 4u, 6u, 0xFFFFFFFFu}) {
    LogImage image(1000);
    image.file.Put32(8, number).Put32(20, number);
    image.SetUsed(number);
    const std::string path = NewPath();
    WriteFile(path, image.Bytes());
    EXPECT_EQ(Open(path, 1000), (CallResult{0, ""})) << number;
    EXPECT_TRUE(HasHandle());
    EXPECT_EQ(ReadFile(path), image.Bytes());
  }
}

TEST_F(WalDamageTest, EveryFlippedHeaderByteIsFoundUnlessNothingCoversIt) {
  LogImage image(1000);
  image.Append({"k", "v"});
  for (size_t offset = 0; offset < 128; ++offset) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      const std::string path = NewPath();
      std::string bytes = image.Bytes();
      bytes[offset] = static_cast<char>(bytes[offset] ^ flip);
      WriteFile(path, bytes);
      const CallResult expected = offset < 20 ? CallResult{2818, "Invalid wal checksum"} : CallResult{0, ""};
      EXPECT_EQ(Open(path, 1000), expected) << offset << " ^ " << flip;
      EXPECT_EQ(ReadFile(path), bytes);
      if (HasHandle()) {
        EXPECT_EQ(Get(*wal_, "k"), "v");
      }
    }
  }
}

// Whether a file counts as a log is its length: what is cut below the wanted size is made anew.
TEST_F(WalDamageTest, ALogCutAtAnyLengthOpensWithTheRecordsThatAreWhole) {
  LogImage image(300);
  const size_t first = image.Append({"first", "1"});
  const size_t second = image.Append({"second", "22"});
  const size_t end = image.Used();
  ASSERT_LT(end, 300u);
  for (size_t length = 0; length <= 300; ++length) {
    const std::string path = NewPath();
    WriteFile(path, image.Bytes().substr(0, length));
    EXPECT_EQ(Open(path, 129), (CallResult{0, ""})) << length;
    ASSERT_TRUE(HasHandle());
    KeyList expected;
    if (length >= 129) {
      if (length >= second) expected.push_back("first");
      if (length >= end) expected.push_back("second");
    }
    EXPECT_EQ(Keys(*wal_), expected) << length;
    const CallResult refused = AnswerOf([&] { return Insert(*wal_, "k", std::string(300, 'v')); });
    EXPECT_EQ(refused, (CallResult{3330, kNoRoom})) << length;
  }
  EXPECT_EQ(first, 128u);
}

// It could not be addressed by its own 32-bit offsets.
TEST_F(WalOpenTest, ALogOfFourGigabytesIsNotMapped) {
  WriteFile(path_, LogImage(1000).Bytes());
  std::filesystem::resize_file(path_, uint64_t{1} << 32);
  EXPECT_EQ(Open(1000), (CallResult{0, "Failed to map wal: " + path_}));
  EXPECT_FALSE(HasHandle());
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_LT(info.st_blocks * 512, 1 << 20) << "no disk space was taken for it";
}

TEST_F(WalOpenTest, WithoutRoomForTheFileNoLogIsMadeAndALaterOpeningMakesIt) {
  ChildProcess child([&](ChildLink& parent) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {5000, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    const CallResult answer = Open(20000);
    return parent.Send(std::to_string(answer.status) + answer.printed) && !HasHandle() ? 0 : 2;
  });
  std::string answer;
  EXPECT_TRUE(child.Receive(&answer));
  EXPECT_EQ(answer, "771");
  EXPECT_EQ(child.Wait(), 0);

  EXPECT_EQ(Open(20000), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  EXPECT_EQ(Bytes(), LogImage(20000).Bytes());
}

// A process that dies while it makes a log leaves a file that is shorter than the log, or a complete one.
TEST_F(WalOpenTest, AHeaderWithoutTheRestOfTheFileIsMadeAnew) {
  WriteFile(path_, LogImage(1000).Bytes().substr(0, 24));
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  EXPECT_EQ(Bytes(), LogImage(1000).Bytes());
}

TEST_F(WalOpenTest, ASparseLogGetsItsDiskSpaceWhenItIsOpened) {
  WriteFile(path_, LogImage(1000).Bytes());
  std::filesystem::resize_file(path_, 1 << 20);
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_GE(info.st_blocks * 512, 1 << 20);
  EXPECT_EQ(info.st_size, 1 << 20);
}

TEST_F(WalOpenTest, ClosingAndOpeningAgainKeepsTheIndexAndWhatWasReplayed) {
  auto first = OpenWal(path_, 1000);
  ASSERT_EQ(Insert(*first, "k", "v"), kStatusOk);
  first.reset();
  // Damage that replay would stop at shows that the record is not read again.
  std::string bytes = Bytes();
  bytes[128] = static_cast<char>(bytes[128] + 1);
  WriteFile(path_, bytes);
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  EXPECT_EQ(Get(*wal_, "k"), "v");
}

TEST_F(WalOpenTest, TwoHandlesOfOneProcessShareOneIndex) {
  auto first = OpenWal(path_, 1000);
  auto second = OpenWal(path_, 1000);
  ASSERT_EQ(Insert(*first, "k", "v"), kStatusOk);
  EXPECT_EQ(Get(*second, "k"), "v");
  first.reset();
  EXPECT_EQ(Get(*second, "k"), "v");
  EXPECT_EQ(Insert(*second, "k", "w"), kStatusOk);
}

// The system gives the number of a removed file to another one; the index that was kept for it must not.
TEST_F(WalOpenTest, AFileMadeAnewUnderAnOldInodeNumberStartsEmpty) {
  auto wal = OpenWal(path_, 1000);
  ASSERT_EQ(Insert(*wal, "ghost", "old value"), kStatusOk);
  ASSERT_EQ(Get(*wal, "ghost"), "old value");
  wal.reset();
  std::filesystem::resize_file(path_, 0);
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  EXPECT_EQ(Get(*wal_, "ghost"), kMissing);
  EXPECT_EQ(Insert(*wal_, "new", "value"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), KeyList{"new"});
}

TEST_F(WalOpenTest, ALogRemovedAndMadeAgainStartsEmptyWhateverItsInodeNumber) {
  int repeated = 0;
  for (int round = 0; round < 100; ++round) {
    struct stat before = {};
    struct stat after = {};
    auto wal = OpenWal(path_, 1000);
    ASSERT_EQ(stat(path_.c_str(), &before), 0);
    ASSERT_EQ(Keys(*wal), KeyList()) << round;
    ASSERT_EQ(Insert(*wal, "ghost" + std::to_string(round), "old value"), kStatusOk);
    wal.reset();
    ASSERT_EQ(unlink(path_.c_str()), 0);
    wal = OpenWal(path_, 1000);
    ASSERT_EQ(stat(path_.c_str(), &after), 0);
    if (before.st_ino == after.st_ino) ++repeated;
    ASSERT_EQ(Keys(*wal), KeyList()) << round;
    wal.reset();
    ASSERT_EQ(unlink(path_.c_str()), 0);
  }
  RecordProperty("inode_numbers_repeated", repeated);
}

TEST_F(WalOpenTest, AnotherLogRestoredOverTheFileWhileItIsClosedIsRead) {
  LogImage other(1000);
  other.Append({"restored", "1"});
  auto wal = OpenWal(path_, 1000);
  ASSERT_EQ(Insert(*wal, "ghost", "old value"), kStatusOk);
  wal.reset();
  Put(other);  // in place: the inode number stays
  EXPECT_EQ(Open(1000), (CallResult{0, ""}));
  EXPECT_EQ(Keys(*wal_), KeyList{"restored"});
}

TEST_F(WalOpenTest, OpeningAndClosingKeepsNoMappingAndNoDescriptor) {
  OpenWal(path_, 1 << 16);
  const size_t mappings = CountMappings();
  const size_t descriptors = CountDescriptors();
  for (int i = 0; i < 500; ++i) {
    auto wal = OpenWal(path_, 1 << 16);
    ASSERT_EQ(Insert(*wal, "k", "v"), kStatusOk);
  }
  EXPECT_EQ(MappingsOf(path_).size(), 0u);
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_LT(CountMappings(), mappings + 100) << "of 500 cycles; the heap may have grown";
}

TEST_F(WalOpenTest, AFailedOpeningKeepsNoMappingAndNoDescriptor) {
  LogImage image(1000);
  image.file.Put8(0, 'k');
  Put(image);
  const size_t descriptors = CountDescriptors();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Open(1000).status, kStatusWalChecksum);
  EXPECT_EQ(MappingsOf(path_).size(), 0u);
  EXPECT_EQ(CountDescriptors(), descriptors);
}

}  // namespace
}  // namespace Kestrun::Testing
