// What is found when a process dies while it replaces entries of the manifest.
#include "storage/manifest_journal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "tests/storage/manifest_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

class ManifestReplacementTest : public ManifestTest {
 protected:
  ManifestReplacementTest() : ManifestTest(ScratchDirectory::Place::Memory) {
    for (const std::string& name : {a_, b_, c_}) old_.Append(name, FilterOf(name));
    new_.SetGeneration(old_.Generation());
    new_.Append(d_, "the filter of the merged block");
    new_.file.PutBytes(new_.Bytes().size(), ManifestEntryBytes(c_, FilterOf(c_)));
    side_ = SideFileBytes(new_.Generation(), old_.Entries(), new_.Entries());
  }

  // Puts the two files under a new name, opens the manifest, and expects the list and the bytes that it is
  // left with, and no side file.
  void ExpectAfterOpening(const std::string& manifest, const std::string& side, const NameList& names,
                          const std::string& bytes) {
    const std::string path = NewPath();
    WriteFile(path, manifest);
    WriteFile(path + ".next", side);
    auto opened = OpenManifest(path);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(Names(*opened), names);
    EXPECT_EQ(ToHex(ReadFile(path)), ToHex(bytes));
    EXPECT_FALSE(Exists(path + ".next"));
  }
  void ExpectOld(const std::string& manifest, const std::string& side) {
    ExpectAfterOpening(manifest, side, {a_, b_, c_}, manifest);
  }
  void ExpectNew(const std::string& manifest, const std::string& side) {
    ExpectAfterOpening(manifest, side, {d_, c_}, new_.Bytes());
  }

  ManifestImage old_;
  ManifestImage new_;
  std::string side_;
};

TEST_F(ManifestReplacementTest, ASideFileCutAtAnyLengthIsDroppedAndTheOldEntriesStay) {
  for (size_t length = 0; length < side_.size(); ++length) {
    SCOPED_TRACE(length);
    ExpectOld(old_.Bytes(), side_.substr(0, length));
  }
}

TEST_F(ManifestReplacementTest, ASideFileWithAnyFlippedByteIsDroppedAndTheOldEntriesStay) {
  for (size_t offset = 0; offset < side_.size(); offset += offset < 60 ? 1 : 13) {
    SCOPED_TRACE(offset);
    std::string side = side_;
    side[offset] = static_cast<char>(side[offset] ^ 0x10);
    ExpectOld(old_.Bytes(), side);
  }
}

TEST_F(ManifestReplacementTest, ACompleteSideFileBesideAnUntouchedManifestIsDropped) {
  ExpectOld(old_.Bytes(), side_);
}

TEST_F(ManifestReplacementTest, AManifestOverwrittenUpToAnyByteIsFinished) {
  const std::string entries = new_.Entries();
  for (size_t written = 1; written <= entries.size(); ++written) {
    SCOPED_TRACE(written);
    std::string manifest = old_.Bytes();
    manifest.replace(128, written, entries, 0, written);
    ExpectNew(manifest, side_);
  }
}

TEST_F(ManifestReplacementTest, NewEntriesThatWereNotYetShownAreShown) {
  ExpectNew(old_.Bytes().substr(0, 128) + new_.Entries(), side_);
}

TEST_F(ManifestReplacementTest, ASideFileThatOutlivedItsPurposeIsRemoved) {
  ExpectNew(new_.Bytes(), side_);
}

// A loss of power can leave the new header beside old entries, or beside any mixture.
TEST_F(ManifestReplacementTest, OldEntriesBelowTheNewHeaderAreReplaced) {
  ExpectNew(new_.Bytes().substr(0, 128) + old_.Entries(), side_);
  ExpectNew(new_.Bytes().substr(0, 128), side_);
  ExpectNew(new_.Bytes().substr(0, 200), side_);
}

// The next block was recorded although the side file could not be removed.
TEST_F(ManifestReplacementTest, OldEntriesWithAnotherBehindThemAreNotReplaced) {
  ManifestImage later = old_;
  later.Append(d_, FilterOf(d_));
  ExpectAfterOpening(later.Bytes(), side_, {a_, b_, c_, d_}, later.Bytes());
}

TEST_F(ManifestReplacementTest, ASideFileOfAnotherGenerationIsDropped) {
  for (const uint32_t generation : {0u, 1u, old_.Generation() - 1, old_.Generation() + 2, 0xFFFFFFFFu}) {
    SCOPED_TRACE(generation);
    ExpectOld(old_.Bytes(), SideFileBytes(generation, old_.Entries(), new_.Entries()));
  }
}

TEST_F(ManifestReplacementTest, WhileAnotherProcessIsAtItTheListIsTheNewOneAndNothingIsTouched) {
  std::string manifest = old_.Bytes();
  manifest.replace(128, 100, new_.Entries(), 0, 100);
  WriteFile(path_, manifest);
  WriteFile(SidePath(), side_);
  ForeignLock writer(path_, F_WRLCK, 0x40000000, 512);
  auto opened = OpenManifest(path_);
  BlockEntries entries;
  EXPECT_EQ(opened->LoadUnlocked(&entries), kStatusOk);
  EXPECT_EQ(NamesOf(entries), (NameList{d_, c_}));
  EXPECT_EQ(ToHex(Bytes()), ToHex(manifest));
  EXPECT_EQ(ReadFile(SidePath()), side_);
  writer.Release();
  EXPECT_EQ(Names(*opened), (NameList{d_, c_}));
  ASSERT_EQ(Append(*opened, a_), kStatusOk);
  EXPECT_EQ(Names(*opened), (NameList{d_, c_, a_}));
  AppendTo(new_, a_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(new_.Bytes()));
  EXPECT_FALSE(Exists(SidePath()));
}

TEST_F(ManifestReplacementTest, TheNextChangeFinishesWhatAProcessLeftBehindWhileTheManifestWasOpen) {
  WriteFile(path_, old_.Bytes());
  auto opened = OpenManifest(path_);
  EXPECT_EQ(Names(*opened).size(), 3u);
  std::string manifest = old_.Bytes();
  manifest.replace(128, 77, new_.Entries(), 0, 77);
  WriteFile(path_, manifest);
  WriteFile(SidePath(), side_);
  ASSERT_EQ(Append(*opened, b_), kStatusOk);
  AppendTo(new_, b_);
  EXPECT_EQ(ToHex(Bytes()), ToHex(new_.Bytes()));
  EXPECT_EQ(Names(*opened), (NameList{d_, c_, b_}));
  EXPECT_FALSE(Exists(SidePath()));
}

TEST_F(ManifestReplacementTest, WhatIsTruncatedDoesNotComeBackFromASideFile) {
  WriteFile(path_, old_.Bytes());
  auto opened = OpenManifest(path_);
  WriteFile(SidePath(), side_);
  ASSERT_EQ(Truncate(*opened), kStatusOk);
  EXPECT_FALSE(Exists(SidePath()));
  opened.reset();
  EXPECT_EQ(Names(*OpenManifest(path_)), NameList());
}

TEST_F(ManifestReplacementTest, TheBytesOfTheSideFileAreAsDocumented) {
  ManifestJournal replacement;
  replacement.generation = new_.Generation();
  replacement.oldLength = old_.Entries().size();
  replacement.oldHash = ManifestJournalHash(old_.Entries().data(), old_.Entries().size());
  replacement.entries = BytesOf(new_.Entries());
  ASSERT_EQ(WriteJournal(SidePath(), replacement), kStatusOk);
  EXPECT_EQ(ToHex(ReadFile(SidePath())), ToHex(side_));

  ManifestJournal read;
  ASSERT_TRUE(ReadJournal(SidePath(), &read));
  EXPECT_EQ(read.generation, replacement.generation);
  EXPECT_EQ(read.oldLength, replacement.oldLength);
  EXPECT_EQ(read.oldHash, replacement.oldHash);
  EXPECT_EQ(read.entries, replacement.entries);
  RemoveJournal(SidePath());
  EXPECT_FALSE(ReadJournal(SidePath(), &read));
}

TEST_F(ManifestReplacementTest, ALongerSideFileOfBeforeIsWrittenOverCompletely) {
  WriteFile(SidePath(), std::string(5000, 'x'));
  ManifestJournal replacement;
  replacement.entries = BytesOf("entries");
  ASSERT_EQ(WriteJournal(SidePath(), replacement), kStatusOk);
  EXPECT_EQ(ReadFile(SidePath()).size(), 40u + 7);
}

// Replaces a and b in a process that can't make files longer than `limit`.
struct Outcome {
  uint32_t status;
  bool done;
  std::string printed;
};
Outcome ReplaceWithLimit(const std::string& path, rlim_t limit, size_t filterSize) {
  ChildProcess child([&](ChildLink& parent) {
    auto manifest = OpenManifest(path);
    const BlockEntries all = Entries(*manifest);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit sizes = {limit, RLIM_INFINITY};
    bool done = false;
    const CallResult answer = AnswerOf([&] {
      if (setrlimit(RLIMIT_FSIZE, &sizes) != 0) return kStatusOk;
      const FileLockGuard lock(manifest->File(), LockLevel::Exclusive);
      const std::vector<uint8_t> filter(filterSize, 'f');
      return manifest->Replace({all[0], all[1]}, BlockName("D"), filter, &done);
    });
    if (Names(*manifest).size() != 3) return 1;
    return parent.Send(std::to_string(answer.status)) && parent.Send(answer.printed) &&
                   parent.Send(done ? "done" : "")
               ? 0
               : 2;
  });
  std::string status;
  std::string printed;
  std::string done;
  EXPECT_TRUE(child.Receive(&status) && child.Receive(&printed) && child.Receive(&done));
  EXPECT_EQ(child.Wait(), 0);
  return {static_cast<uint32_t>(std::stoul("0" + status)), !done.empty(), printed};
}

TEST_F(ManifestReplacementTest, WithoutRoomForTheManifestTheOldEntriesAreWrittenBack) {
  WriteFile(path_, old_.Bytes());
  constexpr size_t kFilterSize = 1000;
  const size_t entries = 56 + kFilterSize + 56 + FilterOf(c_).size();
  // The side file has a shorter header: it fits while the manifest does not.
  const Outcome outcome = ReplaceWithLimit(path_, 60 + entries, kFilterSize);
  EXPECT_EQ(outcome.status, kStatusManifestWriteFailed);
  EXPECT_FALSE(outcome.done);
  EXPECT_EQ(outcome.printed, "Failed to write block entry");
  EXPECT_EQ(ToHex(Bytes()), ToHex(old_.Bytes()));
  EXPECT_FALSE(Exists(SidePath()));
}

TEST_F(ManifestReplacementTest, WithoutRoomForTheSideFileNothingIsTouched) {
  WriteFile(path_, old_.Bytes());
  const Outcome outcome = ReplaceWithLimit(path_, 500, 1000);
  EXPECT_EQ(outcome.status, kStatusManifestWriteFailed);
  EXPECT_FALSE(outcome.done);
  EXPECT_EQ(outcome.printed, "Failed to write block entry");
  EXPECT_EQ(ToHex(Bytes()), ToHex(old_.Bytes()));
  EXPECT_FALSE(Exists(SidePath()));
}

}  // namespace
}  // namespace Kestrun::Testing
