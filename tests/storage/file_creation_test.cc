#include "storage/file_creation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <vector>

#include "storage/directory.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/shared_memory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::CountDescriptors;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::SharedMemory;
using Testing::WriteFile;

class FileBirthTest : public testing::Test {
 protected:
  size_t CountFiles() const {
    const std::filesystem::directory_iterator all(directory_.Path());
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

  const ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("file");
};

TEST_F(FileBirthTest, AFileIsBornWithItsHeadAndItsLength) {
  const size_t descriptors = CountDescriptors();
  ASSERT_TRUE(CreateFileAtomically(path_, "head", 4, 10));
  EXPECT_EQ(ReadFile(path_), std::string("head\0\0\0\0\0\0", 10));
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(FileBirthTest, AFileThatIsThereIsLeftAlone) {
  WriteFile(path_, "there before");
  EXPECT_FALSE(CreateFileAtomically(path_, "head", 4, 10));
  EXPECT_EQ(ReadFile(path_), "there before");
  EXPECT_FALSE(CreateFileAtomically(directory_.PathOf("missing/file"), "head", 4, 10));
  EXPECT_EQ(CountFiles(), 1u);
}

TEST_F(FileBirthTest, AFileThatFindsNoRoomIsNotBorn) {
  ChildProcess child([&](ChildLink&) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {6, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    if (CreateFileAtomically(path_, "head", 4, 10)) return 2;
    return CreateFileAtomically(path_, "long head", 9, 9) ? 3 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(CountFiles(), 0u);
}

TEST_F(FileBirthTest, OneOfSeveralProcessesClaimsAName) {
  EXPECT_TRUE(CreateExclusive(path_));
  EXPECT_EQ(ReadFile(path_), "");
  WriteFile(path_, "mine");
  EXPECT_FALSE(CreateExclusive(path_));
  EXPECT_EQ(ReadFile(path_), "mine");
  EXPECT_TRUE(CreateExclusive(directory_.PathOf("missing/file"))) << "whoever opens it meets the reason";

  const SharedMemory<std::atomic<int>> winners;
  const SharedMemory<std::atomic<bool>> go;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int number = 0; number < 4; ++number) {
    children.push_back(std::make_unique<ChildProcess>([&](ChildLink&) {
      while (!*go) usleep(10);
      for (int file = 0; file < 100; ++file) {
        if (CreateExclusive(path_ + std::to_string(file))) ++*winners;
      }
      return 0;
    }));
  }
  *go = true;
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);
  EXPECT_EQ(*winners, 100);
}

TEST_F(FileBirthTest, ACreationWaitsForTheOneThatIsUnderWay) {
  const SharedMemory<std::atomic<bool>> finished;
  ChildProcess child([&](ChildLink& parent) {
    const DirectoryCreationLock guard(directory_.Path());
    parent.Signal();
    parent.Await();
    usleep(30000);
    *finished = true;
    return 0;
  });
  ASSERT_TRUE(child.Await());
  child.Signal();
  const DirectoryCreationLock guard(directory_.Path());
  EXPECT_TRUE(*finished);
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(FileBirthTest, ACreationGoesOnWhereTheOtherOneDoesNotEnd) {
  ChildProcess child([&](ChildLink& parent) {
    const DirectoryCreationLock guard(directory_.Path());
    parent.Signal();
    parent.Await();
    return 0;
  });
  ASSERT_TRUE(child.Await());
  const auto begun = std::chrono::steady_clock::now();
  { const DirectoryCreationLock guard(directory_.Path()); }
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(900));
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(FileBirthTest, AGuardOfAMissingDirectoryGuardsNothing) {
  const size_t descriptors = CountDescriptors();
  {
    const DirectoryCreationLock missing(directory_.PathOf("missing"));
    const DirectoryCreationLock guard(directory_.Path());
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
}

}  // namespace
}  // namespace Kestrun
