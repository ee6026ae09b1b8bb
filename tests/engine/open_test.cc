// How a store comes into being, is opened, closed and removed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

class OpenTest : public StoreTest {
 protected:
  // The status; `*printed` is what the opening wrote to standard output.
  static uint32_t TryOpen(const std::string& path, std::string* printed, uint32_t walSize = kWalSize) {
    CapturedStdout output;
    auto* const before = reinterpret_cast<LSDBImpl*>(&output);
    LSDBImpl* engine = before;
    const uint32_t status = LSDBImpl::Open(path, {walSize, 0}, &engine);
    *printed = output.Take();
    EXPECT_EQ(engine == before, status != kStatusOk) << "a failure leaves the out-pointer alone";
    if (engine != before) delete engine;
    return status;
  }
  std::string printed_;
};

TEST_F(OpenTest, AMissingDirectoryIsMadeForItsOwnerAlone) {
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusOk);
  EXPECT_EQ(printed_, "");
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777u, 0700u);
  EXPECT_EQ(Files(), (Strings{"manifest_v5", "wal_v5"}));
}

TEST_F(OpenTest, AMissingParentIsNotMade) {
  const std::string path = path_ + "/below";
  EXPECT_EQ(TryOpen(path, &printed_), kStatusDirectoryFailed);
  EXPECT_EQ(printed_, "Failed to create directory: " + path);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(OpenTest, ADirectoryThatTheSystemRefusesIsAFailure) {
  EXPECT_EQ(TryOpen("/proc/self/kestrun", &printed_), kStatusDirectoryFailed);
  EXPECT_EQ(printed_, "Failed to create directory: /proc/self/kestrun");
}

// mkdir says of both that there is something already.
TEST_F(OpenTest, APathThatIsTakenAndLeadsToNoDirectoryIsAFailure) {
  const std::string link = directory_.PathOf("link");
  ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
  EXPECT_EQ(TryOpen(link, &printed_), kStatusDirectoryFailed);
  EXPECT_EQ(printed_, "Failed to create directory: " + link);

  const std::string file = directory_.PathOf("file");
  WriteFile(file, "a file");
  EXPECT_EQ(TryOpen(file + "/", &printed_), kStatusDirectoryFailed);
  EXPECT_EQ(printed_, "Failed to create directory: " + file + "/");
  EXPECT_EQ(ReadFile(file), "a file");
}

TEST_F(OpenTest, ALinkToADirectoryIsFollowed) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  const std::string link = directory_.PathOf("link");
  ASSERT_EQ(symlink(path_.c_str(), link.c_str()), 0);
  EXPECT_EQ(TryOpen(link, &printed_), kStatusOk);
  EXPECT_EQ(Files(), (Strings{"manifest_v5", "wal_v5"}));
}

TEST_F(OpenTest, WithoutAnOutPointerTheStoreIsMadeAndClosedAgain) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  CapturedStdout output;
  const size_t descriptors = CountDescriptors();
  EXPECT_EQ(LSDBImpl::Open(path_, {kWalSize, 0}, nullptr), kStatusOk);
  EXPECT_EQ(output.Take(), "");
  EXPECT_EQ(Files(), (Strings{"manifest_v5", "wal_v5"}));
  EXPECT_EQ(CountDescriptors(), descriptors);
}

// Nothing is tidied up in the path of the caller.
TEST_F(OpenTest, ATrailingSlashStaysInEveryPath) {
  EXPECT_EQ(TryOpen(path_ + "/", &printed_, 128), kStatusInvalid);
  EXPECT_EQ(printed_, "invalid wal size: " + path_ + "//wal_v5");

  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_ + "/", {kWalSize, 0}, &opened), kStatusOk);
  const std::unique_ptr<LSDBImpl> engine(opened);
  MakeBlock(*engine, {{"key", "value"}});
  EXPECT_EQ(Value(*engine, "key"), "value");
  EXPECT_EQ(Value(*Open(), "key"), "value");
}

TEST_F(OpenTest, ALogOf128BytesIsRefusedAndWhatWasMadeSoFarStays) {
  EXPECT_EQ(TryOpen(path_, &printed_, 128), kStatusInvalid);
  EXPECT_EQ(printed_, "invalid wal size: " + PathOf("wal_v5"));
  EXPECT_EQ(Files(), (Strings{"manifest_v5", "wal_v5"}));
  EXPECT_EQ(ReadFile(PathOf("manifest_v5")).size(), 128u);
  EXPECT_EQ(ReadFile(PathOf("wal_v5")).size(), 0u);

  EXPECT_EQ(TryOpen(path_, &printed_, 0), kStatusInvalid);
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusOk);
}

TEST_F(OpenTest, ALogOf129BytesOpensAndTakesNothing) {
  const std::unique_ptr<LSDBImpl> engine = Open(129);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine, "k", ""), kStatusWalFull);
  const std::string full = "Wal is fullFailed to reserve write space\n";
  EXPECT_EQ(output.Take(), full + full);
  EXPECT_EQ(ListedBlocks().size(), 1u) << "the empty log was flushed once";
  EXPECT_EQ(Value(*engine, "k"), "<none>");
}

TEST_F(OpenTest, AFileInThePlaceOfTheDirectoryIsNoStore) {
  WriteFile(path_, "a file");
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusManifestUnreadable);
  EXPECT_EQ(printed_, "");
  EXPECT_EQ(ReadFile(path_), "a file");
}

TEST_F(OpenTest, ADirectoryInThePlaceOfAFileIsRefused) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  ASSERT_EQ(mkdir(PathOf("wal_v5").c_str(), 0700), 0);
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusWalOpenFailed);
  EXPECT_EQ(printed_, "");

  ASSERT_EQ(std::remove(PathOf("manifest_v5").c_str()), 0);
  ASSERT_EQ(mkdir(PathOf("manifest_v5").c_str(), 0700), 0);
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusManifestUnreadable);
}

TEST_F(OpenTest, TheManifestIsOpenedBeforeTheLog) {
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusOk);
  WriteFile(PathOf("manifest_v5"), std::string(200, 'x'));
  WriteFile(PathOf("wal_v5"), std::string(kWalSize, 'x'));
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusManifestChecksum);
  EXPECT_EQ(printed_, "Invalid manifest header checksum");

  std::remove(PathOf("manifest_v5").c_str());
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusWalChecksum);
  EXPECT_EQ(printed_, "Invalid wal checksum");
}

// The log itself reports success without a handle; a store can't do without one.
TEST_F(OpenTest, ALogThatCannotBeMappedRefusesTheOpening) {
  ASSERT_EQ(TryOpen(path_, &printed_), kStatusOk);
  ASSERT_EQ(truncate(PathOf("wal_v5").c_str(), off_t{1} << 32), 0);  // offsets have 32 bits
  EXPECT_EQ(TryOpen(path_, &printed_), kStatusWalOpenFailed);
  EXPECT_EQ(printed_, "Failed to map wal: " + PathOf("wal_v5"));
}

TEST_F(OpenTest, NothingIsFlushedWhenAStoreIsClosed) {
  std::unique_ptr<LSDBImpl> engine = Open();
  ASSERT_EQ(Insert(*engine, "key", "value"), kStatusOk);
  const auto before = Contents();
  engine.reset();
  EXPECT_TRUE(Contents() == before);
  EXPECT_TRUE(BlockFiles().empty());

  EXPECT_EQ(Value(*Open(), "key"), "value");
  ChildProcess child([this](ChildLink&) { return Value(*Open(), "key") == "value" ? 0 : 1; });
  EXPECT_EQ(child.Wait(), 0);
}

// Callers flush before they open a store with a larger log.
TEST_F(OpenTest, ALargerLogGivesUpWhatTheSmallerOneHeld) {
  std::unique_ptr<LSDBImpl> engine = Open();
  MakeBlock(*engine, {{"flushed", "kept"}});
  ASSERT_EQ(Insert(*engine, "in the log", "lost"), kStatusOk);
  engine.reset();
  CapturedStdout output;
  engine = Open(2 * kWalSize);
  EXPECT_EQ(output.Take(), "");
  EXPECT_EQ(Value(*engine, "in the log"), "<none>");
  EXPECT_EQ(Value(*engine, "flushed"), "kept");
  EXPECT_EQ(ReadFile(PathOf("wal_v5")).size(), 2 * kWalSize);
}

TEST_F(OpenTest, ASmallerLogSizeLeavesALongerLogAsItIs) {
  ASSERT_EQ(Insert(*Open(), "key", "value"), kStatusOk);
  const std::unique_ptr<LSDBImpl> engine = Open(129);
  EXPECT_EQ(Value(*engine, "key"), "value");
  EXPECT_EQ(Insert(*engine, "another", "value"), kStatusOk);
  EXPECT_EQ(ReadFile(PathOf("wal_v5")).size(), kWalSize);
}

TEST_F(OpenTest, SeveralEnginesOfOneProcessShareOneStore) {
  const std::unique_ptr<LSDBImpl> first = Open();
  const std::unique_ptr<LSDBImpl> second = Open();
  ASSERT_EQ(Insert(*first, "key", "one"), kStatusOk);
  EXPECT_EQ(Value(*second, "key"), "one");
  ASSERT_EQ(second->ResetWal(), kStatusOk);
  EXPECT_EQ(Value(*first, "key"), "one");
  ASSERT_EQ(second->Delete("key"), kStatusOk);
  EXPECT_EQ(Value(*first, "key"), "<none>");
}

TEST_F(OpenTest, AnEngineThatWasNotOpenedRefusesEverything) {
  LSDBImpl engine(path_, {kWalSize, 0});
  CapturedStdout output;
  EXPECT_EQ(Insert(engine, "key", "value"), kStatusWalOpenFailed);
  EXPECT_EQ(engine.Delete("key"), kStatusWalOpenFailed);
  const Got got = Get(engine, "key");
  EXPECT_EQ(got.status, kStatusWalOpenFailed);
  EXPECT_FALSE(got.valueSet);
  EXPECT_FALSE(engine.Contains("key"));
  DataEntry entry = {};
  EXPECT_EQ(engine.GetDataEntry("key", entry), kStatusWalOpenFailed);
  EXPECT_EQ(engine.EnumerateKeys("a", "b", nullptr), kStatusWalOpenFailed);
  EXPECT_EQ(engine.DeleteByRange("a", "z"), kStatusOk);
  EXPECT_EQ(engine.ResetWal(), kStatusWalOpenFailed);
  EXPECT_EQ(engine.ForceCompact(), kStatusWalOpenFailed);
  EXPECT_EQ(engine.Clear(), kStatusWalOpenFailed);
  EXPECT_EQ(engine.FindBlock("key"), nullptr);
  EXPECT_EQ(output.Take(), "");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(OpenTest, RemoveTakesTheWholeDirectory) {
  MakeBlock(*Open(), {{"key", "value"}});
  std::filesystem::create_directories(PathOf("below/further"));
  WriteFile(PathOf("below/further/file"), "of somebody else");
  EXPECT_EQ(LSDBImpl::Remove(path_), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_EQ(LSDBImpl::Remove(path_), kStatusOpenFailed) << "there is none";
}

TEST_F(OpenTest, RemoveLeavesSymbolicLinksAndSaysSo) {
  Open();
  ASSERT_EQ(symlink("/", PathOf("link").c_str()), 0);
  EXPECT_EQ(LSDBImpl::Remove(path_), kStatusOpenFailed);
  EXPECT_EQ(Files(), Strings{"link"});
}

TEST_F(OpenTest, AStoreMadeAgainInThePlaceOfARemovedOneIsEmpty) {
  for (int i = 0; i < 20; ++i) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    EXPECT_TRUE(Keys(*engine).empty()) << "time " << i;
    MakeBlock(*engine, {{"in a block", "value"}});
    ASSERT_EQ(Insert(*engine, "in the log", "value"), kStatusOk);
    ASSERT_EQ(LSDBImpl::Remove(path_), kStatusOk);
  }
}

TEST_F(OpenTest, OpeningAndClosingLeavesNothingOpenOrMapped) {
  MakeBlocks(*Open(), 3);
  Value(*Open(), "key0");
  const size_t descriptors = CountDescriptors();
  for (int i = 0; i < 200; ++i) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    ASSERT_EQ(Value(*engine, "key0"), "value0");
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
  for (const std::string& name : Files()) EXPECT_TRUE(MappingsOf(PathOf(name)).empty()) << name;
}

// Files of a store never get the numbers of the standard streams, onto which the library prints.
TEST_F(OpenTest, WithoutStandardOutputNoMessageEndsUpInAFileOfTheStore) {
  ChildProcess child([this](ChildLink&) {
    for (const int stream : {1, 2}) close(stream);
    std::unique_ptr<LSDBImpl> engine = Open();
    bool sound = engine != nullptr;
    for (int i = 0; i < 40; ++i) {
      sound = sound && Insert(*engine, "key" + std::to_string(i), std::string(500, 'v')) == kStatusOk;
    }
    sound = sound && engine->ForceCompact() == kStatusOk;
    engine->Insert("", kLong, nullptr, 0);  // prints
    std::fflush(stdout);
    for (const int stream : {1, 2}) sound = sound && fcntl(stream, F_GETFD) < 0;
    return sound ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  for (const auto& [name, bytes] : Contents()) {
    EXPECT_EQ(bytes.find("Wal is full"), std::string::npos) << name;
    EXPECT_EQ(bytes.find("Invalid key"), std::string::npos) << name;
  }
  const std::unique_ptr<LSDBImpl> engine = Open();
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(Value(*engine, "key" + std::to_string(i)), std::string(500, 'v')) << i;
  }
}

// Kept: descriptor 0 counts as a failure to open. It is not left open.
TEST_F(OpenTest, WithoutStandardInputAStoreCannotBeOpened) {
  Open();
  ChildProcess child([this](ChildLink&) {
    close(0);
    LSDBImpl* engine = nullptr;
    const uint32_t status = LSDBImpl::Open(path_, {kWalSize, 0}, &engine);
    return status == kStatusManifestUnreadable && fcntl(0, F_GETFD) < 0 ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
}  // namespace Kestrun::Testing
