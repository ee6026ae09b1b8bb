// A log or a manifest that is no regular file: a link to a device, a pipe, a socket. What such a file refuses
// does not decide, but whether it can be mapped. Nothing waits for it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "tests/storage/manifest_fixture.h"
#include "tests/storage/wal_fixture.h"
#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

class SpecialFileTest : public testing::Test {
 protected:
  std::string LinkTo(const char* target) {
    const std::string path = NewPath();
    EXPECT_EQ(symlink(target, path.c_str()), 0);
    return path;
  }
  std::string Pipe() {
    const std::string path = NewPath();
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
  }
  std::string Socket() {
    const std::string path = NewPath();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(descriptor);
    return path;
  }

  CallResult OpenLog(const std::string& path) {
    return AnswerOf([&] { return OpenWal(path, 4096, &wal_); });
  }
  CallResult OpenList(const std::string& path) {
    return AnswerOf([&] { return OpenManifest(path, &manifest_); });
  }

  std::unique_ptr<Wal> wal_;
  std::unique_ptr<Manifest> manifest_;

 private:
  std::string NewPath() { return directory_.PathOf("file" + std::to_string(++files_)); }

  const ScratchDirectory directory_;
  int files_ = 0;
};

TEST_F(SpecialFileTest, ADeviceThatCantBeMappedIsSaidToBeOne) {
  const std::string path = LinkTo("/dev/null");
  EXPECT_EQ(OpenLog(path), (CallResult{kStatusOk, "Failed to map wal: " + path}));
  EXPECT_EQ(wal_, nullptr);
  EXPECT_EQ(OpenList(path), (CallResult{kStatusMapFailed, "Failed to map wal: " + path}));
}

TEST_F(SpecialFileTest, ADeviceThatCanBeMappedServes) {
  const std::string path = LinkTo("/dev/zero");
  EXPECT_EQ(OpenLog(path), (CallResult{kStatusOk, ""}));
  ASSERT_NE(wal_, nullptr);
  EXPECT_EQ(wal_->Capacity(), 4096u);
  EXPECT_EQ(Insert(*wal_, "key", "value"), kStatusOk);
  EXPECT_EQ(Get(*wal_, "key"), "value");
  EXPECT_EQ(OpenList(path), (CallResult{kStatusOk, ""}));
  ASSERT_NE(manifest_, nullptr);
  EXPECT_EQ(Names(*manifest_), NameList());
}

TEST_F(SpecialFileTest, ADeviceThatTakesNoBytesCantBeMadeALog) {
  const std::string path = LinkTo("/dev/full");
  EXPECT_EQ(OpenLog(path), (CallResult{kStatusCreateFailed, ""}));
  EXPECT_EQ(OpenList(path), (CallResult{kStatusCreateFailed, "Failed to write header of manifest file"}));
}

TEST_F(SpecialFileTest, APipeCantBeSought) {
  const std::string path = Pipe();
  EXPECT_EQ(OpenLog(path), (CallResult{kStatusSeekFailed, ""}));
  EXPECT_EQ(OpenList(path), (CallResult{kStatusSeekFailed, "Failed to seek file: " + path}));
}

TEST_F(SpecialFileTest, ASocketCantBeOpened) {
  const std::string path = Socket();
  EXPECT_EQ(OpenLog(path), (CallResult{kStatusWalOpenFailed, ""}));
  EXPECT_EQ(OpenList(path), (CallResult{kStatusManifestUnreadable, ""}));
}

// A pipe that is opened for reading alone makes the system wait for somebody who writes.
TEST_F(SpecialFileTest, OpeningNeverWaits) {
  const std::string path = Pipe();
  ChildProcess child([&](ChildLink&) {
    alarm(20);
    std::shared_ptr<OsFile> file;
    if (OsFile::Open(path, kOpenReadOnly, &file) != kStatusOk) return 1;
    char byte;
    return file->Read(&byte, 1) <= 0 ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace Kestrun::Testing
