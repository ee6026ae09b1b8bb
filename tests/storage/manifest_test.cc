#include "storage/manifest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tests/storage/manifest_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

constexpr char kBadHeader[] = "Invalid manifest header checksum";
constexpr char kBadEntry[] = "Failed to decode header of block entryFailed to load block entries";
constexpr char kShortEntry[] = "Failed to read block entryFailed to load block entries";

class ManifestOpenTest : public ManifestTest {
 protected:
  explicit ManifestOpenTest(ScratchDirectory::Place place = ScratchDirectory::Place::Disk)
      : ManifestTest(place) {}

  CallResult Open(const std::string& path) {
    return AnswerOf([&] { return OpenManifest(path, &manifest_); });
  }
  CallResult Open() { return Open(path_); }
  // A new file with these bytes, opened.
  CallResult OpenBytes(const std::string& bytes) {
    newest_ = NewPath();
    WriteFile(newest_, bytes);
    return Open(newest_);
  }
  bool HasHandle() const { return manifest_ != nullptr; }

  std::unique_ptr<Manifest> manifest_;
  std::string newest_;
};

// With a file for every byte.
class ManifestDamageTest : public ManifestOpenTest {
 protected:
  ManifestDamageTest() : ManifestOpenTest(ScratchDirectory::Place::Memory) {}
};

TEST_F(ManifestOpenTest, AMissingOrEmptyManifestIsMadeWithAHeaderAndNoEntries) {
  WriteFile(directory_.PathOf("empty"), "");
  for (const std::string& path : {path_, directory_.PathOf("empty")}) {
    EXPECT_EQ(Open(path), (CallResult{0, ""}));
    ASSERT_TRUE(HasHandle());
    EXPECT_EQ(ToHex(ReadFile(path)), ToHex(ManifestImage().Bytes()));
    EXPECT_EQ(Names(*manifest_), NameList());
  }
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(ManifestOpenTest, TheEntriesAreReadInTheirOrderWithTheirFilters) {
  ManifestImage image;
  image.Append(a_, "filter of a");
  image.Append(b_, "");
  image.Append("short name", std::string(4097, 'f'));
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{0, ""}));
  ASSERT_TRUE(HasHandle());
  const BlockEntries entries = Entries(*manifest_);
  EXPECT_EQ(NamesOf(entries), (NameList{a_, b_, "short name"}));
  EXPECT_EQ(entries.at(0)->filter, BytesOf("filter of a"));
  EXPECT_EQ(entries.at(1)->filter, BytesOf(""));
  EXPECT_EQ(entries.at(2)->filter, BytesOf(std::string(4097, 'f')));
  EXPECT_EQ(ReadFile(newest_), image.Bytes());
}

TEST_F(ManifestOpenTest, WhatCantBeOpenedIs258) {
  std::filesystem::create_directory(path_);
  EXPECT_EQ(Open(), (CallResult{258, ""}));
  EXPECT_EQ(Open(directory_.PathOf("missing/manifest_v5")), (CallResult{258, ""}));
  EXPECT_FALSE(HasHandle());
}

TEST_F(ManifestOpenTest, AWrongMagicIs3586AndAWrongChecksum3842WhateverTheMagic) {
  ManifestImage image;
  image.file.Put8(0, 'k');
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{3842, kBadHeader}));
  image.SealHeader();
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{3586, "Invalid wal magic"})) << "in the log's wording";
  image.file.Put8(0, 'K').Put8(7, 1);
  image.SealHeader();
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{3586, "Invalid wal magic"})) << "the NUL counts";
  EXPECT_FALSE(HasHandle());
}

TEST_F(ManifestOpenTest, VersionAndHeaderSizeAreNotLookedAt) {
  ManifestImage image;
  image.Append(a_, "f");
  image.file.Put32(8, 77).Put32(16, 4);
  image.SealHeader();
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), NameList{a_});
}

TEST_F(ManifestDamageTest, EveryFlippedHeaderByteIsFoundUnlessNothingCoversIt) {
  ManifestImage image;
  image.Append(a_, "f");
  for (size_t offset = 0; offset < 128; ++offset) {
    for (const int flip : {0x01, 0x80, 0xFF}) {
      std::string bytes = image.Bytes();
      bytes[offset] = static_cast<char>(bytes[offset] ^ flip);
      const CallResult expected = offset < 24 ? CallResult{3842, kBadHeader} : CallResult{0, ""};
      EXPECT_EQ(OpenBytes(bytes), expected) << offset << " ^ " << flip;
      EXPECT_EQ(ReadFile(newest_), bytes);
    }
  }
}

TEST_F(ManifestDamageTest, EveryFlippedByteOfAnEntryIsFoundUnlessItIsOfTheFilter) {
  ManifestImage image;
  const size_t first = image.Append(a_, "filter");
  const size_t second = image.Append(b_, "filter");
  for (const size_t entry : {first, second}) {
    for (size_t i = 0; i < 62; ++i) {
      std::string bytes = image.Bytes();
      bytes[entry + i] = static_cast<char>(bytes[entry + i] ^ 0x21);
      const CallResult expected = i < 56 ? CallResult{258, kBadEntry} : CallResult{0, ""};
      EXPECT_EQ(OpenBytes(bytes), expected) << entry << " + " << i;
    }
  }
}

TEST_F(ManifestDamageTest, AManifestCutAtAnyLengthOpensWithWholeEntriesUnlessAFilterIsCut) {
  ManifestImage image;
  image.Append(a_, "filter of a");
  const size_t second = image.Append(b_, "filter of b");
  const size_t end = image.Bytes().size();
  for (size_t length = 0; length <= end; ++length) {
    SCOPED_TRACE(length);
    const CallResult answer = OpenBytes(image.Bytes().substr(0, length));
    const size_t inEntry = length < 128 ? 0 : (length - 128) % (second - 128);
    if (length == 0) {
      EXPECT_EQ(answer, (CallResult{0, ""}));
      EXPECT_EQ(ReadFile(newest_), ManifestImage().Bytes());
    } else if (length < 128) {
      EXPECT_EQ(answer, (CallResult{3842, kBadHeader}));
    } else if (inEntry >= 56) {
      EXPECT_EQ(answer, (CallResult{258, kShortEntry}));
    } else {
      EXPECT_EQ(answer, (CallResult{0, ""}));
      NameList expected;
      if (length >= second) expected.push_back(a_);
      if (length >= end) expected.push_back(b_);
      EXPECT_EQ(Names(*manifest_), expected);
    }
  }
}

// The file grows before the bytes of an entry reach the disk: a loss of power leaves sectors of zeros.
TEST_F(ManifestDamageTest, ALastEntryOfZerosIsNotAnEntryAndTheNextOneTakesItsPlace) {
  ManifestImage image;
  image.Append(a_, "filter of a");
  for (const size_t length : {56, 57, 100, 4153}) {
    EXPECT_EQ(OpenBytes(image.Bytes() + std::string(length, '\0')), (CallResult{0, ""})) << length;
    EXPECT_EQ(Names(*manifest_), NameList{a_}) << length;
    ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
    ManifestImage expected = image;
    AppendTo(expected, b_);
    EXPECT_EQ(ToHex(ReadFile(newest_)), ToHex(expected.Bytes())) << length;
  }
}

TEST_F(ManifestDamageTest, ZerosThatAreMoreThanOneEntryOrStandBeforeOneAreDamage) {
  ManifestImage image;
  image.Append(a_, "filter of a");
  EXPECT_EQ(OpenBytes(image.Bytes() + std::string(4154, '\0')), (CallResult{258, kBadEntry}));
  EXPECT_EQ(OpenBytes(image.Bytes() + std::string(67, '\0') + ManifestEntryBytes(b_, "f")),
            (CallResult{258, kBadEntry}));
}

// The name becomes part of a path, and what fails to load there is deleted.
TEST_F(ManifestOpenTest, ANameThatWouldLeaveTheDirectoryOrItsFieldIsADamagedEntry) {
  for (const std::string& name : {std::string("../../../../etc/passwd"), std::string("a/b"), std::string("/"),
                                  std::string(32, 'N'), std::string(31, 'N') + "/"}) {
    ManifestImage image;
    image.Append(a_, "f");
    image.Append(name, "f");
    EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{258, kBadEntry})) << name;
    EXPECT_FALSE(HasHandle());
  }
}

TEST_F(ManifestOpenTest, AFilterLargerThanTheFileIsNotReadAndNotAllocated) {
  for (const uint32_t size : {2u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu - 55}) {
    ManifestImage image;
    const size_t entry = image.Append(a_, "f");
    image.file.Put32(entry + 48, size);
    image.SealEntry(entry);
    EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{258, kShortEntry})) << size;
  }
}

TEST_F(ManifestOpenTest, AGenerationOf0MeansThatThereIsNothingToRead) {
  ManifestImage image;
  image.Append(a_, "f");
  image.SetGeneration(0);
  EXPECT_EQ(OpenBytes(image.Bytes()), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), NameList());
}

TEST_F(ManifestOpenTest, WithoutRoomForTheHeaderNoneIsLeftBehind) {
  ChildProcess child([&](ChildLink& parent) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {64, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    std::unique_ptr<Manifest> manifest;
    const uint32_t status = OpenManifest(path_, &manifest);
    return parent.Send(std::to_string(status)) && manifest == nullptr ? 0 : 2;
  });
  std::string status;
  EXPECT_TRUE(child.Receive(&status));
  EXPECT_EQ(status, "771");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(Bytes(), "");
  EXPECT_EQ(Open(), (CallResult{0, ""}));
  EXPECT_EQ(Bytes(), ManifestImage().Bytes());
}

TEST_F(ManifestOpenTest, AFileMadeAnewUnderAnOldInodeNumberStartsEmpty) {
  auto manifest = OpenManifest(path_);
  ASSERT_EQ(Append(*manifest, a_), kStatusOk);
  manifest.reset();
  std::filesystem::resize_file(path_, 0);
  EXPECT_EQ(Open(), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), NameList());
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  EXPECT_EQ(Names(*manifest_), NameList{b_});
}

TEST_F(ManifestOpenTest, AnotherManifestRestoredOverTheFileWhileItIsClosedIsRead) {
  auto manifest = OpenManifest(path_);
  ASSERT_EQ(Append(*manifest, a_), kStatusOk);
  manifest.reset();
  ManifestImage image;  // of the same generation
  image.Append(b_, "f");
  WriteFile(path_, image.Bytes());
  EXPECT_EQ(Open(), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), NameList{b_});
}

TEST_F(ManifestOpenTest, OpeningAndClosingKeepsNoMappingAndNoDescriptor) {
  OpenManifest(path_);
  const size_t descriptors = CountDescriptors();
  for (int i = 0; i < 500; ++i) OpenManifest(path_);
  EXPECT_EQ(MappingsOf(path_).size(), 0u);
  EXPECT_EQ(CountDescriptors(), descriptors);
}

class ManifestChangeTest : public ManifestTest {
 protected:
  ManifestChangeTest() : manifest_(OpenManifest(path_)) {}

  CallResult AppendAnswer(const std::string& name) {
    return AnswerOf([&] { return Append(*manifest_, name); });
  }
  // Puts bytes at the end of the open manifest behind its back.
  void AppendBytes(const std::string& bytes) { WriteFileAt(Bytes().size(), bytes); }
  void WriteFileAt(size_t offset, const std::string& bytes) {
    const int descriptor = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(bytes.size()));
    close(descriptor);
  }

  std::unique_ptr<Manifest> manifest_;
  ManifestImage image_;  // what the file should be
};

TEST_F(ManifestChangeTest, EntriesFollowEachOtherByteForByteAndEachMovesTheGeneration) {
  EXPECT_EQ(AppendAnswer(a_), (CallResult{0, ""}));
  AppendTo(image_, a_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
  clock_.Advance(7);
  EXPECT_EQ(AppendAnswer(b_), (CallResult{0, ""}));
  AppendTo(image_, b_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
  EXPECT_EQ(image_.Generation(), 2u);
  EXPECT_EQ(Names(*manifest_), (NameList{a_, b_}));
}

TEST_F(ManifestChangeTest, TheTwoTimesOfAnEntryAreReadOneAfterTheOther) {
  clock_.OnReading([&](int number) {
    if (number == 2) clock_.Advance(1);
  });
  const uint64_t now = clock_.Now();
  EXPECT_EQ(AppendAnswer(a_), (CallResult{0, ""}));
  clock_.OnReading(nullptr);
  AppendTo(image_, a_);
  image_.file.Put64(128 + 32, now).Put64(128 + 40, now + 1);
  image_.SealEntry(128);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
}

TEST_F(ManifestChangeTest, TruncatingLeavesTheHeaderAndItsGeneration) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  const std::string header = Bytes().substr(0, 128);
  EXPECT_EQ(AnswerOf([&] { return Truncate(*manifest_); }), (CallResult{0, ""}));
  EXPECT_EQ(ToHex(Bytes()), ToHex(header));
  EXPECT_EQ(Names(*manifest_), NameList());
  EXPECT_EQ(AppendAnswer(c_), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), NameList{c_});
  image_.SetGeneration(2);
  AppendTo(image_, c_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes()));
}

TEST_F(ManifestChangeTest, TheCandidatesOfAKeyAreTheEntriesWhoseFilterPassesInTheirOrder) {
  ASSERT_EQ(Append(*manifest_, a_, "\xFF\xFF\x05"), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_, std::string("\0\0\x05", 3)), kStatusOk);
  ASSERT_EQ(Append(*manifest_, c_, std::string("\0\0\x1F", 3)), kStatusOk);
  ASSERT_EQ(Append(*manifest_, d_, ""), kStatusOk);
  const FileLockGuard lock(manifest_->File(), LockLevel::Shared);
  EXPECT_EQ(NamesOf(manifest_->FindCandidates(Key("key"))), (NameList{a_, c_}));
}

TEST_F(ManifestChangeTest, ASecondHandleOfTheProcessSharesTheList) {
  auto second = OpenManifest(path_);
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  EXPECT_EQ(Names(*second), NameList{a_});
  ASSERT_EQ(Append(*second, b_), kStatusOk);
  EXPECT_EQ(Names(*manifest_), (NameList{a_, b_}));
  second.reset();
  ASSERT_EQ(Truncate(*manifest_), kStatusOk);
  EXPECT_EQ(Names(*manifest_), NameList());
}

TEST_F(ManifestChangeTest, ADamagedHeaderRefusesEveryChangeAndKeepsTheList) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  WriteFileAt(16, "x");
  const std::string before = Bytes();
  EXPECT_EQ(AnswerOf([&] { return Load(*manifest_); }), (CallResult{3842, kBadHeader}));
  EXPECT_EQ(AppendAnswer(b_), (CallResult{3842, kBadHeader}));
  EXPECT_EQ(Bytes(), before);
  CapturedStdout output;
  const NameList names = Names(*manifest_);
  EXPECT_EQ(output.Take(), kBadHeader);
  EXPECT_EQ(names, NameList{a_});
}

TEST_F(ManifestChangeTest, AListThatCantBeReadLeavesTheOldOneAndIsReadAgainLater) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  AppendTo(image_, a_);
  AppendTo(image_, b_);
  ManifestImage damaged = image_;
  damaged.file.Put8(128 + 3, 0x11);  // in the first entry
  WriteFileAt(0, damaged.Bytes());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(AnswerOf([&] { return Load(*manifest_); }),
              (CallResult{258, "Failed to decode header of block entry"}));
  }
  EXPECT_EQ(AppendAnswer(c_), (CallResult{258, "Failed to decode header of block entry"}));
  EXPECT_EQ(ToHex(Bytes()), ToHex(damaged.Bytes()));
  WriteFileAt(0, image_.Bytes());
  EXPECT_EQ(AnswerOf([&] { return Load(*manifest_); }), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), (NameList{a_, b_}));
}

// A descriptor that may only write stands for a disk that can't be read at the moment.
TEST_F(ManifestChangeTest, AReadErrorIsNotTheEndOfTheList) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  AppendTo(image_, a_);
  AppendTo(image_, b_);
  WriteFileAt(0, image_.Bytes());
  const std::vector<int> descriptors = DescriptorsOf(path_);
  ASSERT_EQ(descriptors.size(), 1u);
  const int writeOnly = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(dup3(writeOnly, descriptors[0], O_CLOEXEC), descriptors[0]);
  close(writeOnly);
  const FileLockGuard lock(manifest_->File(), LockLevel::Exclusive);
  ASSERT_EQ(lock.Status(), kStatusOk);
  EXPECT_EQ(AnswerOf([&] { return manifest_->Load(); }), (CallResult{258, "Failed to read block entry"}));
  CapturedStdout output;
  const NameList names = NamesOf(manifest_->Entries());
  EXPECT_EQ(output.Take(), "Failed to read block entry");
  EXPECT_EQ(names, NameList{a_});

  const int readWrite = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(dup3(readWrite, descriptors[0], O_CLOEXEC), descriptors[0]);
  close(readWrite);
  EXPECT_EQ(manifest_->Load(), kStatusOk);
  EXPECT_EQ(NamesOf(manifest_->Entries()), (NameList{a_, b_}));
}

// Whatever a torn write left behind the last entry must not stay between two entries.
TEST_F(ManifestChangeTest, AnAppendCutsOffWhatLiesBehindTheLastEntry) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  AppendTo(image_, a_);
  for (const size_t length : {1, 55, 56, 57, 4000}) {
    AppendBytes(std::string(length, 't'));
    EXPECT_EQ(AppendAnswer(b_), (CallResult{0, ""})) << length;
    AppendTo(image_, b_);
    EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes())) << length;
  }
  EXPECT_EQ(Names(*manifest_).size(), 6u);
}

TEST_F(ManifestChangeTest, ATornEntryHeaderAtOpeningDoesNotStayBetweenTwoEntries) {
  AppendTo(image_, a_);
  const std::string path = NewPath();
  WriteFile(path, image_.Bytes() + ManifestEntryBytes(b_, "f").substr(0, 40));
  auto manifest = OpenManifest(path);
  EXPECT_EQ(Names(*manifest), NameList{a_});
  ASSERT_EQ(Append(*manifest, c_), kStatusOk);
  AppendTo(image_, c_);
  EXPECT_EQ(ToHex(ReadFile(path)), ToHex(image_.Bytes()));
}

TEST_F(ManifestChangeTest, AnEntryThatCouldNotBeWrittenLeavesTheManifestAsItWas) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  const std::string before = Bytes();
  for (const size_t room : {0, 1, 55, 56, 60}) {
    ChildProcess child([&](ChildLink&) {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit = {before.size() + room, RLIM_INFINITY};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
      const FileLockGuard lock(manifest_->File(), LockLevel::Exclusive);
      const std::vector<uint8_t> filter(10, 'f');
      if (manifest_->Append(b_, filter) != kStatusManifestWriteFailed) return 2;
      if (NamesOf(manifest_->Entries()) != NameList{a_}) return 3;
      const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
      return setrlimit(RLIMIT_FSIZE, &none) == 0 ? 0 : 4;
    });
    EXPECT_EQ(child.Wait(), 0) << room;
    EXPECT_EQ(ToHex(Bytes()), ToHex(before)) << room;
  }
  EXPECT_EQ(AppendAnswer(c_), (CallResult{0, ""}));
  EXPECT_EQ(Names(*manifest_), (NameList{a_, c_}));
}

TEST_F(ManifestChangeTest, AFailedWriteSaysSo) {
  ChildProcess child([&](ChildLink& parent) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {150, RLIM_INFINITY};
    // What is caught here goes to a file of its own, shorter than the limit.
    const CallResult answer =
        AnswerOf([&] { return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? Append(*manifest_, a_) : kStatusOk; });
    return parent.Send(std::to_string(answer.status) + answer.printed) ? 0 : 1;
  });
  std::string answer;
  EXPECT_TRUE(child.Receive(&answer));
  EXPECT_EQ(answer, "1282Failed to write block entry");
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(ManifestChangeTest, WhatIsStillListedIsLookedUpByNameAndInTheFile) {
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  const BlockEntries both = Entries(*manifest_);
  const FileLockGuard lock(manifest_->File(), LockLevel::Exclusive);
  EXPECT_TRUE(manifest_->StillLists(both));
  EXPECT_TRUE(manifest_->StillLists({both[1]}));
  EXPECT_TRUE(manifest_->StillLists({}));
  std::filesystem::resize_file(path_, 128);  // as another process truncates it
  EXPECT_FALSE(manifest_->StillLists({both[0]}));
}

TEST_F(ManifestChangeTest, OneBlockTakesThePlaceOfSeveralBeforeThoseRecordedLater) {
  for (const std::string& name : {a_, b_, c_}) ASSERT_EQ(Append(*manifest_, name), kStatusOk);
  const BlockEntries all = Entries(*manifest_);
  const uint64_t written = clock_.Now();
  clock_.Advance(9);
  bool done = false;
  {
    const FileLockGuard lock(manifest_->File(), LockLevel::Exclusive);
    EXPECT_EQ(manifest_->Replace({all[0], all[1]}, d_, BytesOf(FilterOf(d_)), &done), kStatusOk);
  }
  EXPECT_TRUE(done);
  EXPECT_EQ(Names(*manifest_), (NameList{d_, c_}));
  image_.SetGeneration(2);
  image_.Append(d_, FilterOf(d_), clock_.Now());
  image_.Append(c_, FilterOf(c_), written);
  EXPECT_EQ(ToHex(Bytes()), ToHex(image_.Bytes())) << "an entry that stays is not written anew";
  EXPECT_FALSE(Exists(SidePath()));
}

TEST_F(ManifestChangeTest, NothingIsReplacedWhenOneOfTheBlocksIsGone) {
  for (const std::string& name : {a_, b_}) ASSERT_EQ(Append(*manifest_, name), kStatusOk);
  const BlockEntries both = Entries(*manifest_);
  ASSERT_EQ(Truncate(*manifest_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  const std::string before = Bytes();
  bool done = true;
  const FileLockGuard lock(manifest_->File(), LockLevel::Exclusive);
  EXPECT_EQ(manifest_->Replace(both, d_, BytesOf("f"), &done), kStatusOk);
  EXPECT_FALSE(done);
  EXPECT_EQ(Bytes(), before);
  EXPECT_FALSE(Exists(SidePath()));
}

TEST_F(ManifestChangeTest, OwnMovesOfTheGenerationAreNotForeign) {
  const uint64_t before = manifest_->ExternalChanges();
  ASSERT_EQ(Append(*manifest_, a_), kStatusOk);
  ASSERT_EQ(Append(*manifest_, b_), kStatusOk);
  EXPECT_EQ(manifest_->ExternalChanges(), before);
  AppendTo(image_, a_);
  AppendTo(image_, b_);
  AppendTo(image_, c_);
  WriteFileAt(0, image_.Bytes());
  const uint64_t after = manifest_->ExternalChanges();
  EXPECT_GT(after, before);
  EXPECT_EQ(manifest_->ExternalChanges(), after) << "each is counted once";
  ASSERT_EQ(Append(*manifest_, d_), kStatusOk);
  EXPECT_EQ(manifest_->ExternalChanges(), after);
}

}  // namespace
}  // namespace Kestrun::Testing
