#include "storage/os_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/status.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::CountDescriptors;
using Testing::DescriptorsOf;
using Testing::LocksOfOthers;
using Testing::MappingsOf;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::WriteFile;

constexpr uint32_t kNotAdopted = 0xFFFFFFFF;

std::shared_ptr<OsFile> OpenFile(const std::string& path, uint16_t flags = kOpenReadWrite) {
  std::shared_ptr<OsFile> file;
  EXPECT_EQ(OsFile::Open(path, flags, &file), kStatusOk) << path;
  return file;
}

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// A handle whose descriptor was closed under it: every system call on it fails.
std::shared_ptr<OsFile> OpenBrokenFile(const std::string& path) {
  auto file = OpenFile(path);
  for (const int descriptor : DescriptorsOf(path)) close(descriptor);
  return file;
}

TEST(OsFileOpenTest, ReadOnlyNeverCreatesAndEveryWritableFlagDoes) {
  const ScratchDirectory directory;
  const struct {
    uint16_t flags;
    bool creates;
  } rows[] = {{kOpenReadOnly, false},
              {kOpenNoLock, false},
              {kOpenLocalLockOnly, false},
              {kOpenReadWrite, true},
              {kOpenCreate, true},
              {kOpenReadWrite | kOpenCreate, true},
              {kOpenReadWrite | kOpenLocalLockOnly, true},
              {kOpenCreate | kOpenNoLock, true}};
  for (const auto& row : rows) {
    const std::string path = directory.PathOf("flags" + std::to_string(row.flags));
    std::shared_ptr<OsFile> file;
    EXPECT_EQ(OsFile::Open(path, row.flags, &file), row.creates ? kStatusOk : kStatusOpenFailed) << row.flags;
    EXPECT_EQ(Exists(path), row.creates) << row.flags;
    EXPECT_EQ(file != nullptr, row.creates) << row.flags;
  }
}

TEST(OsFileOpenTest, CreatedFilesBelongToTheirOwnerAlone) {
  const ScratchDirectory directory;
  const mode_t before = umask(0);
  OpenFile(directory.PathOf("file"));
  umask(before);
  struct stat info = {};
  ASSERT_EQ(stat(directory.PathOf("file").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST(OsFileOpenTest, WhatCantBeOpenedIsStatus3) {
  const ScratchDirectory directory;
  std::shared_ptr<OsFile> file;
  EXPECT_EQ(OsFile::Open(directory.Path(), kOpenReadWrite, &file), 3u);
  EXPECT_EQ(OsFile::Open(directory.PathOf("missing/file"), kOpenReadWrite, &file), 3u);
  EXPECT_EQ(OsFile::Open("", kOpenReadWrite, &file), 3u);
  WriteFile(directory.PathOf("plain"), "x");
  EXPECT_EQ(OsFile::Open(directory.PathOf("plain/file"), kOpenReadWrite, &file), 3u);
  EXPECT_EQ(file, nullptr);
}

TEST(OsFileOpenTest, TheDescriptorIsClosedOnExecAndWithTheLastReference) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  auto file = OpenFile(path);
  const std::vector<int> descriptors = DescriptorsOf(path);
  ASSERT_EQ(descriptors.size(), 1u);
  EXPECT_NE(fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(file->Path(), path);

  auto second = file;
  file.reset();
  EXPECT_EQ(DescriptorsOf(path).size(), 1u);
  second.reset();
  EXPECT_EQ(DescriptorsOf(path).size(), 0u);
}

// Descriptor 0 counts as a failure to open, and must not stay behind.
TEST(OsFileOpenTest, WithoutAStandardInputOpeningFailsAndKeepsNothing) {
  const ScratchDirectory directory;
  ChildProcess child([&](ChildLink&) {
    close(STDIN_FILENO);
    std::shared_ptr<OsFile> file;
    if (OsFile::Open(directory.PathOf("file"), kOpenReadWrite, &file) != kStatusOpenFailed) return 1;
    return fcntl(STDIN_FILENO, F_GETFD) < 0 ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

// What the library prints must not end up in a store's file.
TEST(OsFileOpenTest, WithoutStandardOutputAndErrorAFileStillGetsADescriptorBehindThem) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "kept");
  for (const uint16_t flags : {kOpenReadOnly, kOpenReadWrite}) {
    ChildProcess child([&](ChildLink&) {
      close(STDOUT_FILENO);
      close(STDERR_FILENO);
      std::shared_ptr<OsFile> file;
      if (OsFile::Open(path, flags, &file) != kStatusOk) return 1;
      const std::vector<int> descriptors = DescriptorsOf(path);
      if (descriptors.size() != 1 || descriptors[0] < 3) return 2;
      if ((fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC) == 0) return 3;
      std::printf("Failed lock wal");
      std::fflush(stdout);
      return fcntl(STDOUT_FILENO, F_GETFD) < 0 && fcntl(STDERR_FILENO, F_GETFD) < 0 ? 0 : 4;
    });
    EXPECT_EQ(child.Wait(), 0) << flags;
    EXPECT_EQ(ReadFile(path), "kept") << flags;
  }
}

// Moving the descriptor closes one of the file, and any close drops the locks of the whole process.
TEST(OsFileOpenTest, WithoutStandardOutputOpeningDropsNoLockOfAnotherThread) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  ChildProcess child([&](ChildLink& parent) {
    close(STDOUT_FILENO);
    auto locked = OpenFile(path);
    if (locked->Lock(LockLevel::Exclusive) != kStatusOk) return 1;
    std::shared_ptr<OsFile> second;
    std::thread opener([&] { IgnoreStatus(OsFile::Open(path, kOpenReadWrite, &second)); });
    const auto isMoved = [&] {
      const std::vector<int> descriptors = DescriptorsOf(path);
      return std::count_if(descriptors.begin(), descriptors.end(), [](int number) { return number >= 3; }) ==
             2;
    };
    while (!isMoved()) std::this_thread::yield();
    const bool asked = parent.Signal() && parent.Await();
    const uint32_t unlocked = locked->Unlock(LockLevel::Exclusive);
    opener.join();
    return asked && unlocked == kStatusOk && second != nullptr && DescriptorsOf(path).size() == 2 ? 0 : 2;
  });
  ASSERT_TRUE(child.Await());
  EXPECT_NE(LocksOfOthers(path), "");
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
}

TEST(OsFileInodeTest, HandlesOfOnePathAndOfHardLinksShareOneRecordThatOutlivesThem) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  const std::string other = directory.PathOf("link");
  auto first = OpenFile(path);
  InodeInfo* const inode = first->Inode();
  ASSERT_NE(inode, nullptr);
  EXPECT_EQ(inode->openCount, 1u);
  EXPECT_EQ(inode->level, LockLevel::None);

  ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
  auto second = OpenFile(path);
  EXPECT_EQ(second->Inode(), inode);
  EXPECT_EQ(inode->openCount, 2u);
  EXPECT_EQ(OpenFile(other)->Inode(), inode);
  EXPECT_EQ(inode->openCount, 3u);
  EXPECT_TRUE(second->Id() == first->Id());

  first.reset();
  second.reset();
  EXPECT_EQ(inode->openCount, 3u) << "closing is not counted";
  EXPECT_EQ(OpenFile(path)->Inode(), inode);
  EXPECT_EQ(inode->openCount, 4u);
  EXPECT_NE(OpenFile(directory.PathOf("another"))->Inode(), inode);
}

TEST(OsFileInodeTest, ASecondHandleSeesTheLevelOfTheFirst) {
  const ScratchDirectory directory;
  auto first = OpenFile(directory.PathOf("file"));
  auto second = OpenFile(directory.PathOf("file"));
  ASSERT_EQ(first->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(second->Inode()->level, LockLevel::Shared);
  EXPECT_EQ(first->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(second->Inode()->level, LockLevel::None);
}

TEST(OsFileWrapperTest, ReturnWhatTheSystemReturns) {
  const ScratchDirectory directory;
  auto file = OpenFile(directory.PathOf("file"));
  EXPECT_EQ(file->Write("0123456789", 10), 10);
  EXPECT_EQ(file->Seek(2, SEEK_SET), 2);
  char buffer[8] = {};
  EXPECT_EQ(file->Read(buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 3), "234");
  EXPECT_EQ(file->Seek(0, SEEK_CUR), 5);
  EXPECT_EQ(file->PRead(buffer, 8, 7), 3) << "the file ends";
  EXPECT_EQ(std::string(buffer, 3), "789");
  EXPECT_EQ(file->PWrite("ab", 2, 0), 2);
  EXPECT_EQ(file->Seek(0, SEEK_CUR), 5) << "positioned transfers leave the position alone";
  EXPECT_EQ(file->Seek(-1, SEEK_SET), -1);
  EXPECT_EQ(file->Seek(0, SEEK_END), 10);
  uint64_t size = 0;
  EXPECT_EQ(file->Size(&size), 0);
  EXPECT_EQ(size, 10u);
  EXPECT_EQ(file->Truncate(4), 0);
  EXPECT_EQ(file->Truncate(-1), -1);
  EXPECT_EQ(file->Sync(), 0);
  EXPECT_EQ(ReadFile(directory.PathOf("file")), "ab23");
}

TEST(OsFileWrapperTest, FailuresOfTheSystemComeThrough) {
  const ScratchDirectory directory;
  const auto file = OpenBrokenFile(directory.PathOf("file"));
  char byte = 0;
  uint64_t size = 7;
  EXPECT_EQ(file->Size(&size), -1);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(file->Read(&byte, 1), -1);
  EXPECT_EQ(file->PRead(&byte, 1, 0), -1);
  EXPECT_EQ(file->Write(&byte, 1), -1);
  EXPECT_EQ(file->PWrite(&byte, 1, 0), -1);
  EXPECT_EQ(file->Sync(), -1);
  EXPECT_EQ(file->Map(1, 0, 0), nullptr);
  EXPECT_EQ(file->PReadFully(&byte, 1, 0), -1);
  EXPECT_EQ(file->PWriteFully(&byte, 1, 0), -1);
  EXPECT_FALSE(file->Reserve(1));
}

TEST(OsFileWrapperTest, ReadingFullyGivesWhatThereIsUpToTheEnd) {
  const ScratchDirectory directory;
  WriteFile(directory.PathOf("file"), "0123456789");
  auto file = OpenFile(directory.PathOf("file"), kOpenReadOnly);
  char buffer[16] = {};
  EXPECT_EQ(file->PReadFully(buffer, 10, 0), 10);
  EXPECT_EQ(file->PReadFully(buffer, 16, 4), 6);
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(file->PReadFully(buffer, 16, 10), 0);
  EXPECT_EQ(file->PReadFully(buffer, 0, 0), 0);
  EXPECT_EQ(file->Write("x", 1), -1) << "opened for reading";
}

TEST(OsFileWrapperTest, WritingFullyTellsHowMuchASystemWithoutRoomHasTaken) {
  const ScratchDirectory directory;
  ChildProcess child([&](ChildLink&) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {6, 6};
    auto file = OpenFile(directory.PathOf("file"));
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    if (file->PWriteFully("0123456789", 10, 0) != 6) return 2;
    return file->PWriteFully("0123456789", 10, 6) == -1 ? 0 : 3;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ReadFile(directory.PathOf("file")), "012345");
}

TEST(OsFileWrapperTest, ReservingTakesDiskSpaceAndLeavesTheSize) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  auto file = OpenFile(path);
  ASSERT_EQ(file->Truncate(100000), 0);
  ASSERT_TRUE(file->Reserve(200000));
  struct stat info = {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 100000);
  // A file system that can't reserve counts as success and has no blocks to show.
  if (fallocate(DescriptorsOf(path).at(0), FALLOC_FL_KEEP_SIZE, 0, 1) == 0) {
    EXPECT_GE(info.st_blocks * 512, 200000);
  }
}

TEST(OsFileMapTest, AMappingSharesTheBytesOfTheFile) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  auto file = OpenFile(path);
  auto* bytes = static_cast<char*>(file->Map(10, 0, 0));
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::string(bytes, 10), "0123456789");
  bytes[3] = 'x';
  EXPECT_EQ(ReadFile(path), "012x456789");
  ASSERT_EQ(MappingsOf(path).size(), 1u);
  EXPECT_NE(MappingsOf(path)[0].find(" rw-s "), std::string::npos);
  file->TrackMapping(bytes, 10);
}

TEST(OsFileMapTest, AReadOnlyMappingCantBeWritten) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  auto file = OpenFile(path, kOpenReadOnly);
  EXPECT_EQ(file->Map(10, 0, 0), nullptr) << "the file can't be written";
  void* bytes = file->Map(10, 0, kMapReadOnly);
  ASSERT_NE(bytes, nullptr);
  ASSERT_EQ(MappingsOf(path).size(), 1u);
  EXPECT_NE(MappingsOf(path)[0].find(" r--s "), std::string::npos);
  file->TrackMapping(bytes, 10);
}

TEST(OsFileMapTest, WhatTheSystemRefusesToMapIsNull) {
  const ScratchDirectory directory;
  auto file = OpenFile(directory.PathOf("file"));
  EXPECT_EQ(file->Map(0, 0, 0), nullptr);
  EXPECT_EQ(file->Map(10, 1, 0), nullptr) << "an offset inside a page";
}

TEST(OsFileMapTest, OnlyAdoptedMappingsCanBeUnmappedByTheHandle) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  auto file = OpenFile(path);
  EXPECT_EQ(file->UnmapAll(), kNotAdopted);
  void* bytes = file->Map(10, 0, 0);
  EXPECT_EQ(file->Unmap(bytes), kNotAdopted);
  EXPECT_EQ(file->UnmapAll(), kNotAdopted);
  EXPECT_EQ(MappingsOf(path).size(), 1u);

  file->TrackMapping(bytes, 10);
  void* more = file->Map(10, 0, 0);
  file->TrackMapping(more, 10);
  EXPECT_EQ(file->Unmap(nullptr), kNotAdopted);
  EXPECT_EQ(file->Unmap(bytes), 0u);
  EXPECT_EQ(file->Unmap(bytes), kNotAdopted);
  EXPECT_EQ(MappingsOf(path).size(), 1u);
  EXPECT_EQ(file->UnmapAll(), 0u);
  EXPECT_EQ(file->UnmapAll(), kNotAdopted);
  EXPECT_EQ(MappingsOf(path).size(), 0u);
}

TEST(OsFileMapTest, AdoptedMappingsGoWithTheHandleAndOthersStay) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  auto file = OpenFile(path);
  file->TrackMapping(file->Map(10, 0, 0), 10);
  auto* stays = static_cast<char*>(file->Map(10, 0, 0));
  file.reset();
  EXPECT_EQ(MappingsOf(path).size(), 1u);
  EXPECT_EQ(std::string(stays, 10), "0123456789");
  OpenFile(path)->TrackMapping(stays, 10);
  EXPECT_EQ(MappingsOf(path).size(), 0u);
}

TEST(OsFileCloseTest, CloseAndRemoveRemovesTheFileAndSucceedsWhateverComesOfIt) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  auto file = OpenFile(path);
  file->TrackMapping(file->Map(10, 0, 0), 10);
  EXPECT_EQ(file->CloseAndRemove(), 0u);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(MappingsOf(path).size(), 0u);
  EXPECT_EQ(file->CloseAndRemove(), 0u);
}

TEST(OsFileCloseTest, OpeningAndClosingKeepsNoDescriptorAndNoMapping) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("file");
  WriteFile(path, "0123456789");
  const size_t before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) {
    auto file = OpenFile(path);
    file->TrackMapping(file->Map(10, 0, 0), 10);
  }
  EXPECT_EQ(CountDescriptors(), before);
  EXPECT_EQ(MappingsOf(path).size(), 0u);
}

}  // namespace
}  // namespace Kestrun
