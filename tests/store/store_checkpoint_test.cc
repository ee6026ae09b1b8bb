// Consistent copies of a store in use.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kestrun/record_store.h"
#include "tests/store/store_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreCheckpointTest : public StoreTest {
 protected:
  std::unique_ptr<Store> OpenFilled() {
    std::unique_ptr<Store> store = Open();
    for (int i = 0; i < 500; ++i) {
      EXPECT_EQ(store->Put("key" + std::to_string(i), std::string(100, 'x')), kStatusOk);
    }
    return store;
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  }

  const std::string copy_ = directory_.PathOf("copy");
  const std::string partial_ = copy_ + ".partial";
};

TEST_F(StoreCheckpointTest, WhatIsThereAlreadyIsLeftAlone) {
  const std::unique_ptr<Store> store = OpenFilled();
  WriteFile(copy_, "text");
  EXPECT_EQ(store->Checkpoint(copy_), kStatusStoreExists);
  EXPECT_EQ(ReadFile(copy_), "text");
  std::filesystem::remove(copy_);
  ASSERT_EQ(symlink("nowhere", copy_.c_str()), 0);
  EXPECT_EQ(store->Checkpoint(copy_), kStatusStoreExists);
  std::filesystem::remove(copy_);
  ASSERT_EQ(mkdir(copy_.c_str(), 0700), 0);
  EXPECT_EQ(store->Checkpoint(copy_), kStatusStoreExists);
  EXPECT_EQ(store->Checkpoint(copy_ + "/"), kStatusStoreExists);
  EXPECT_TRUE(std::filesystem::is_empty(copy_));
  EXPECT_EQ(store->Checkpoint(path_), kStatusStoreExists);
  EXPECT_EQ(store->Checkpoint(directory_.PathOf("no/parent")), kStatusDirectoryFailed);
  EXPECT_NE(store->Checkpoint(""), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(partial_));
}

TEST_F(StoreCheckpointTest, WhatAKilledOneHasLeftIsRemovedByTheNext) {
  const std::unique_ptr<Store> store = OpenFilled();
  ASSERT_EQ(mkdir(partial_.c_str(), 0700), 0);
  WriteFile(partial_ + "/wal_v5", "part of a log");
  WriteFile(partial_ + "/BLOCK.blk_v5", "part of a block");
  ASSERT_EQ(store->Checkpoint(copy_), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(partial_));
  EXPECT_FALSE(std::filesystem::exists(copy_ + "/BLOCK.blk_v5"));
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(copy_, &snapshot), kStatusOk);
  EXPECT_EQ(Walk(*snapshot), Walk(*Take(*store)));
}

TEST_F(StoreCheckpointTest, FlushesNothingAndSharesNothingThatChanges) {
  const std::unique_ptr<Store> store = OpenFilled();
  StoreStats before;
  ASSERT_EQ(store->GetStats(&before), kStatusOk);
  ASSERT_GT(before.blocks, 1u);
  const Pairs expected = Walk(*Take(*store));
  ASSERT_EQ(store->Checkpoint(copy_), kStatusOk);
  StoreStats after;
  ASSERT_EQ(store->GetStats(&after), kStatusOk);
  EXPECT_EQ(after.flushes, before.flushes);
  EXPECT_EQ(after.logUsed, before.logUsed);

  std::unique_ptr<Store> other;
  ASSERT_EQ(Store::Open(copy_, Options(), &other), kStatusOk);
  StoreStats copied;
  ASSERT_EQ(other->GetStats(&copied), kStatusOk);
  EXPECT_EQ(copied.blocks, before.blocks);
  EXPECT_EQ(copied.logUsed, before.logUsed);
  ASSERT_EQ(other->Put("key0", "of the copy"), kStatusOk);
  ASSERT_EQ(other->Compact(), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), expected);
  ASSERT_EQ(store->Clear(), kStatusOk);
  EXPECT_EQ(Get(*other, "key0"), "of the copy");
  EXPECT_EQ(Get(*other, "key1"), std::string(100, 'x'));
}

TEST_F(StoreCheckpointTest, KeepsTheModesOfTheFiles) {
  const std::unique_ptr<Store> store = OpenFilled();
  ASSERT_EQ(chmod(path_.c_str(), 0750), 0);
  ASSERT_EQ(chmod((path_ + "/wal_v5").c_str(), 0640), 0);
  ASSERT_EQ(chmod((path_ + "/manifest_v5").c_str(), 0660), 0);
  const mode_t mask = umask(077);
  const uint32_t status = store->Checkpoint(copy_);
  umask(mask);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(ModeOf(copy_), 0750u);
  EXPECT_EQ(ModeOf(copy_ + "/wal_v5"), 0640u);
  EXPECT_EQ(ModeOf(copy_ + "/manifest_v5"), 0660u);
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    const std::string name = entry.path().filename().string();
    EXPECT_EQ(ModeOf(copy_ + "/" + name), ModeOf(entry.path().string())) << name;
  }
}

TEST_F(StoreCheckpointTest, RecordTypesComeAlong) {
  std::unique_ptr<RecordStore> store;
  ASSERT_EQ(RecordStore::Open(path_, Options(), &store), kStatusOk);
  const std::string type = "Note number:%i4,text:%s";
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(store->Put("key" + std::to_string(i), type, Values(i, "a text of some length")), kStatusOk);
  }
  ASSERT_EQ(store->Raw().Checkpoint(copy_), kStatusOk);
  std::unique_ptr<RecordStore> other;
  ASSERT_EQ(RecordStore::Open(copy_, Options(), &other), kStatusOk);
  EXPECT_EQ(other->Types(), store->Types());
  std::unique_ptr<Record> record;
  ASSERT_EQ(other->Get("key7", &record), kStatusOk);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("number").numeric.i32, 7);
}

// Every copy that is taken beside a writer is a state that there was: each batch replaces all of the keys.
TEST_F(StoreCheckpointTest, CopiesTakenBesideAWriterInAnotherProcessAreWhole) {
  constexpr int kKeys = 6;
  static_cast<void>(Open());
  ChildProcess writer([&](ChildLink& parent) {
    const std::unique_ptr<Store> store = Open();
    for (int number = 1;; ++number) {
      WriteBatch batch;
      for (int i = 0; i < kKeys; ++i) {
        if (batch.Put("k" + std::to_string(i), std::to_string(number)) != kStatusOk) return 1;
      }
      if (store->Write(batch) != kStatusOk) return 2;
      if (number == 1) parent.Signal();
      if (number % 300 == 0 && store->Compact() != kStatusOk) return 3;
    }
  });
  ASSERT_TRUE(writer.Await());
  const std::unique_ptr<Store> store = Open();
  const uint64_t rounds = TestSize(30, 1000);
  for (uint64_t round = 0; round < rounds; ++round) {
    const std::string copy = copy_ + std::to_string(round);
    ASSERT_EQ(store->Checkpoint(copy), kStatusOk);
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(copy, &snapshot), kStatusOk);
    const Pairs pairs = Walk(*snapshot);
    ASSERT_EQ(pairs.size(), static_cast<size_t>(kKeys));
    for (const auto& [key, value] : pairs) ASSERT_EQ(value, pairs[0].second);
  }
  writer.Kill();
}

// A file system of so many bytes, where the system lets a test mount one.
class SmallDisk {
 public:
  SmallDisk(const std::string& path, const char* options) : path_(path) {
    isMounted_ = mkdir(path.c_str(), 0700) == 0 && mount("none", path.c_str(), "tmpfs", 0, options) == 0;
  }
  ~SmallDisk() {
    if (isMounted_) umount2(path_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool IsMounted() const { return isMounted_; }

 private:
  const std::string path_;
  bool isMounted_;
};

TEST_F(StoreCheckpointTest, AFullDiskGivesAStatusAndLeavesNothing) {
  const std::string disk = directory_.PathOf("disk");
  const SmallDisk small(disk, "size=128k,nr_inodes=64");
  ASSERT_TRUE(small.IsMounted()) << "takes the right to mount: run it as root";
  const std::unique_ptr<Store> store = OpenFilled();
  ASSERT_EQ(store->Checkpoint(disk + "/first"), kStatusOk);
  uint32_t status = kStatusOk;
  int copies = 1;
  while (status == kStatusOk && copies < 100)
    status = store->Checkpoint(disk + "/" + std::to_string(copies++));
  EXPECT_EQ(status, kStatusCreateFailed);
  EXPECT_FALSE(std::filesystem::exists(disk + "/" + std::to_string(copies - 1)));
  EXPECT_FALSE(std::filesystem::exists(disk + "/" + std::to_string(copies - 1) + ".partial"));
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(disk + "/first", &snapshot), kStatusOk);
  EXPECT_EQ(Walk(*snapshot), Walk(*Take(*store)));
}

}  // namespace
}  // namespace Kestrun::Testing
