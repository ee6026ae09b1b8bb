// What Store::Open makes of every state of a directory.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "kestrun/diagnostics.h"
#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

constexpr char kLog[] = "/wal_v5";
constexpr char kManifest[] = "/manifest_v5";

class StoreOpenTest : public StoreTest {
 protected:
  uint32_t TryOpen(const StoreOptions& options = Options()) {
    std::unique_ptr<Store> store;
    const uint32_t status = Store::Open(path_, options, &store);
    EXPECT_EQ(store != nullptr, status == kStatusOk);
    return status;
  }
  static StoreOptions MustExist() {
    StoreOptions options = Options();
    options.createIfMissing = false;
    return options;
  }
  static StoreOptions MustNotExist() {
    StoreOptions options = Options();
    options.errorIfExists = true;
    return options;
  }
  // A store with a key in a block and one in the log.
  void MakeStore() {
    const std::unique_ptr<Store> store = Open();
    ASSERT_EQ(store->Put("flushed", "1"), kStatusOk);
    ASSERT_EQ(store->Flush(), kStatusOk);
    ASSERT_EQ(store->Put("logged", "2"), kStatusOk);
  }
  std::string BlockPath() const {
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      if (entry.path().extension() == ".blk_v5") return entry.path().string();
    }
    ADD_FAILURE() << "no block";
    return "";
  }
  // Everything below the directory, names and bytes.
  std::map<std::string, std::string> Contents() const {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
      contents[entry.path().string()] = entry.is_regular_file() ? ReadFile(entry.path().string()) : "";
    }
    return contents;
  }
};

TEST_F(StoreOpenTest, AMissingStoreIsMadeOnlyWhenAskedFor) {
  EXPECT_EQ(TryOpen(MustExist()), kStatusStoreMissing);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_EQ(TryOpen(MustNotExist()), kStatusOk);
  EXPECT_EQ(TryOpen(MustNotExist()), kStatusStoreExists);
  EXPECT_EQ(TryOpen(MustExist()), kStatusOk);
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(StoreOpenTest, AnEmptyDirectoryIsAMissingStore) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  EXPECT_EQ(TryOpen(MustExist()), kStatusStoreMissing);
  EXPECT_TRUE(std::filesystem::is_empty(path_));
  EXPECT_EQ(TryOpen(MustNotExist()), kStatusOk);
}

TEST_F(StoreOpenTest, AMissingParentIsNotMade) {
  std::unique_ptr<Store> store;
  EXPECT_EQ(Store::Open(path_ + "/store", Options(), &store), kStatusDirectoryFailed);
  EXPECT_EQ(Store::Open(path_ + "/store", MustExist(), &store), kStatusStoreMissing);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_NE(Store::Open("", Options(), &store), kStatusOk);
  EXPECT_EQ(store, nullptr);
}

TEST_F(StoreOpenTest, WhatIsNoDirectoryIsNotAStoreAndStaysAsItIs) {
  WriteFile(path_, "text");
  EXPECT_EQ(TryOpen(), kStatusNotAStore);
  EXPECT_EQ(TryOpen(MustNotExist()), kStatusNotAStore);
  EXPECT_EQ(ReadFile(path_), "text");
  std::unique_ptr<Store> store;
  EXPECT_EQ(Store::Open(path_ + "/below", Options(), &store), kStatusNotAStore);
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(symlink("nowhere", path_.c_str()), 0);
  EXPECT_EQ(TryOpen(), kStatusNotAStore);
  EXPECT_FALSE(std::filesystem::exists(directory_.PathOf("nowhere")));
}

TEST_F(StoreOpenTest, ALinkToAStoreIsAStore) {
  MakeStore();
  const std::string link = directory_.PathOf("link");
  ASSERT_EQ(symlink(path_.c_str(), link.c_str()), 0);
  std::unique_ptr<Store> store;
  ASSERT_EQ(Store::Open(link, Options(), &store), kStatusOk);
  EXPECT_EQ(Get(*store, "logged"), "2");
  ASSERT_EQ(Store::Open(path_ + "/", Options(), &store), kStatusOk);
  EXPECT_EQ(Get(*store, "flushed"), "1");
}

TEST_F(StoreOpenTest, OtherFilesAreNotTakenForAStoreAndDoNotDisturbOne) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  WriteFile(path_ + "/letter.txt", "text");
  const auto before = Contents();
  EXPECT_EQ(TryOpen(), kStatusNotAStore);
  EXPECT_EQ(TryOpen(MustExist()), kStatusNotAStore);
  EXPECT_EQ(Contents(), before);
  ASSERT_EQ(unlink((path_ + "/letter.txt").c_str()), 0);
  MakeStore();
  WriteFile(path_ + "/letter.txt", "text");
  ASSERT_EQ(mkdir((path_ + "/folder").c_str(), 0700), 0);
  EXPECT_EQ(Get(*Open(), "flushed"), "1");
  EXPECT_EQ(ReadFile(path_ + "/letter.txt"), "text");
}

// Each part missing, empty or damaged: the answer, and nothing is changed.
TEST_F(StoreOpenTest, PartOfAStoreIsRefusedAndLeftAlone) {
  MakeStore();
  const std::string whole = directory_.PathOf("whole");
  std::filesystem::copy(path_, whole);
  const auto spoil = [](const std::string& file, size_t offset) {
    std::string bytes = ReadFile(file);
    bytes[offset] = static_cast<char>(bytes[offset] ^ 1);
    WriteFile(file, bytes);
  };
  const struct {
    const char* what;
    std::function<void()> change;
  } rows[] = {
      {"no log", [&] { std::filesystem::remove(path_ + kLog); }},
      {"no manifest", [&] { std::filesystem::remove(path_ + kManifest); }},
      {"blocks only",
       [&] {
         std::filesystem::remove(path_ + kLog);
         std::filesystem::remove(path_ + kManifest);
       }},
      {"empty log", [&] { WriteFile(path_ + kLog, ""); }},
      {"empty manifest", [&] { WriteFile(path_ + kManifest, ""); }},
      {"short log", [&] { std::filesystem::resize_file(path_ + kLog, 23); }},
      {"short manifest", [&] { std::filesystem::resize_file(path_ + kManifest, 27); }},
      {"damaged log header", [&] { spoil(path_ + kLog, 13); }},
      {"damaged manifest header", [&] { spoil(path_ + kManifest, 17); }},
  };
  for (const auto& row : rows) {
    std::filesystem::remove_all(path_);
    std::filesystem::copy(whole, path_);
    row.change();
    const auto before = Contents();
    EXPECT_EQ(TryOpen(), kStatusNotAStore) << row.what;
    EXPECT_EQ(TryOpen(MustExist()), kStatusNotAStore) << row.what;
    EXPECT_EQ(TryOpen(MustNotExist()), kStatusNotAStore) << row.what;
    std::unique_ptr<Snapshot> snapshot;
    EXPECT_EQ(Snapshot::Open(path_, &snapshot), kStatusNotAStore) << row.what;
    EXPECT_TRUE(Contents() == before) << row.what;
  }
}

// Without blocks a damaged header is told as what it is: there is nothing else that could be missing.
TEST_F(StoreOpenTest, ADamagedHeaderBesideNoBlockHasItsOwnStatus) {
  ASSERT_EQ(Open()->Put("logged", "2"), kStatusOk);
  const std::string log = ReadFile(path_ + kLog);
  std::string damaged = log;
  damaged[12] = static_cast<char>(damaged[12] ^ 4);
  WriteFile(path_ + kLog, damaged);
  EXPECT_EQ(TryOpen(), kStatusWalChecksum);
  EXPECT_EQ(ReadFile(path_ + kLog), damaged);
  WriteFile(path_ + kLog, log);
  std::string manifest = ReadFile(path_ + kManifest);
  manifest[8] = static_cast<char>(manifest[8] ^ 4);
  WriteFile(path_ + kManifest, manifest);
  EXPECT_EQ(TryOpen(), kStatusManifestChecksum);
  EXPECT_EQ(ReadFile(path_ + kManifest), manifest);
  EXPECT_EQ(ReadFile(path_ + kLog), log);
}

TEST_F(StoreOpenTest, WhatAKilledCreationLeavesIsCompleted) {
  ASSERT_EQ(TryOpen(), kStatusOk);
  const std::string log = ReadFile(path_ + kLog);
  const std::string manifest = ReadFile(path_ + kManifest);
  const std::string empty;
  const std::string part = log.substr(0, 20);
  const struct {
    const char* what;
    const std::string* log;
    const std::string* manifest;
  } rows[] = {{"no log", nullptr, &manifest},   {"no manifest", &log, nullptr},
              {"empty log", &empty, &manifest}, {"empty manifest", &log, &empty},
              {"both empty", &empty, &empty},   {"part of a header", &part, &manifest}};
  for (const auto& row : rows) {
    std::filesystem::remove_all(path_);
    ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
    if (row.log != nullptr) WriteFile(path_ + kLog, *row.log);
    if (row.manifest != nullptr) WriteFile(path_ + kManifest, *row.manifest);
    EXPECT_EQ(TryOpen(MustExist()), kStatusStoreMissing) << row.what;
    EXPECT_EQ(TryOpen(MustNotExist()), kStatusOk) << row.what;
    const std::unique_ptr<Store> store = Open(MustExist());
    ASSERT_NE(store, nullptr) << row.what;
    EXPECT_EQ(store->Put("key", "value"), kStatusOk) << row.what;
    EXPECT_EQ(Get(*store, "key"), "value") << row.what;
  }
}

// A log that has something in it is no left-over, whatever else is missing.
TEST_F(StoreOpenTest, ALogWithEntriesAndNoManifestIsNotCompleted) {
  ASSERT_EQ(Open()->Put("logged", "2"), kStatusOk);
  ASSERT_EQ(unlink((path_ + kManifest).c_str()), 0);
  EXPECT_EQ(TryOpen(), kStatusNotAStore);
  EXPECT_FALSE(std::filesystem::exists(path_ + kManifest));
}

TEST_F(StoreOpenTest, LogSizesThatHoldNothingAreRefused) {
  EXPECT_EQ(TryOpen(Options(0)), kStatusInvalid);
  EXPECT_EQ(TryOpen(Options(128)), kStatusInvalid);
  EXPECT_FALSE(std::filesystem::exists(path_));
  const std::unique_ptr<Store> store = Open(Options(129));
  EXPECT_EQ(store->Put("k", "v"), kStatusWalFull);
}

TEST_F(StoreOpenTest, GrowingTheLogKeepsEverythingForEveryoneWhoHasItOpen) {
  const std::unique_ptr<Store> old = Open();
  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_, {kLogSize, 0}, &opened), kStatusOk);
  const std::unique_ptr<LSDBImpl> older(opened);
  ChildProcess other([&](ChildLink& parent) {
    const std::unique_ptr<Store> store = Open();
    parent.Signal();
    parent.Await();
    if (Get(*store, "before") != "1" || Get(*store, "large") != std::string(3 * kLogSize, 'x')) return 1;
    if (store->Put("from the other", std::string(2 * kLogSize, 'y')) != kStatusOk) return 2;
    StoreStats stats;
    if (store->GetStats(&stats) != kStatusOk || stats.flushes != 0) return 3;
    return 0;
  });
  ASSERT_TRUE(other.Await());
  ASSERT_EQ(old->Put("before", "1"), kStatusOk);
  const std::unique_ptr<Snapshot> snapshot = Take(*old);

  const std::unique_ptr<Store> grown = Open(Options(8 * kLogSize));
  EXPECT_EQ(std::filesystem::file_size(path_ + kLog), 8 * kLogSize);
  EXPECT_EQ(Get(*grown, "before"), "1");
  ASSERT_EQ(grown->Put("large", std::string(3 * kLogSize, 'x')), kStatusOk);
  other.Signal();
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(Get(*old, "large"), std::string(3 * kLogSize, 'x'));
  EXPECT_EQ(Get(*old, "from the other"), std::string(2 * kLogSize, 'y'));
  EXPECT_EQ(Get(*snapshot, "before"), "1");
  EXPECT_EQ(Get(*snapshot, "large"), kNothing);
  const void* value = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(older->Get(Key("large"), &value, &size), kStatusOk);
  EXPECT_EQ(size, 3 * kLogSize);
  std::free(const_cast<void*>(value));
  StoreStats stats;
  ASSERT_EQ(grown->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 0u);
  EXPECT_EQ(stats.blocks, 0u);
  EXPECT_EQ(stats.logCapacity, 8 * kLogSize);
  // A smaller size changes nothing.
  EXPECT_EQ(Get(*Open(), "large"), std::string(3 * kLogSize, 'x'));
  EXPECT_EQ(std::filesystem::file_size(path_ + kLog), 8 * kLogSize);
}

// Two processes make one store at once, with logs of different size:
// neither gives up what the other has written.
TEST_F(StoreOpenTest, ProcessesThatOpenAtOnceWithDifferentLogSizesKeepEachOthersWrites) {
  const uint64_t rounds = TestSize(60, 2000);
  for (uint64_t round = 0; round < rounds; ++round) {
    const std::string path = path_ + std::to_string(round);
    const auto use = [&](ChildLink& parent, const char* key, uint32_t size) {
      parent.Await();
      std::unique_ptr<Store> store;
      if (Store::Open(path, Options(size), &store) != kStatusOk) return 1;
      if (store->Put(key, key) != kStatusOk) return 2;
      return Get(*store, key) == key ? 0 : 3;
    };
    ChildProcess small([&](ChildLink& parent) { return use(parent, "small", kLogSize); });
    ChildProcess large([&](ChildLink& parent) { return use(parent, "large", 4 * kLogSize); });
    small.Signal();
    large.Signal();
    ASSERT_EQ(small.Wait(), 0) << round;
    ASSERT_EQ(large.Wait(), 0) << round;
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(path, &snapshot), kStatusOk);
    ASSERT_EQ(Get(*snapshot, "small"), "small") << round;
    ASSERT_EQ(Get(*snapshot, "large"), "large") << round;
  }
}

// What has no permission is tried in a process that is nobody in particular.
class StorePermissionTest : public StoreOpenTest {
 protected:
  // Runs `body` without the rights of the superuser. 77: the system lets nobody change.
  static int AsNobody(const std::function<int()>& body) {
    ChildProcess child([&](ChildLink&) {
      constexpr uid_t kNobody = 65534;
      if (geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) return 77;
      return body();
    });
    return child.Wait();
  }
  static void Note(void* context, std::string_view message) {
    static_cast<std::string*>(context)->append(message);
  }
};

TEST_F(StorePermissionTest, MissingPermissionHasAStatusAndAReason) {
  ASSERT_EQ(geteuid(), 0u) << "only root can give up rights and keep the files: run it as root";
  MakeStore();
  ASSERT_EQ(chmod(directory_.Path().c_str(), 0755), 0);
  const std::string open = directory_.PathOf("open");
  ASSERT_EQ(mkdir(open.c_str(), 0755), 0);  // may be read, holds nothing, takes nothing

  const auto status = [&](const std::string& path, bool read) {
    std::string said;
    SetDiagnosticHandler(&Note, &said);
    std::unique_ptr<Store> store;
    std::unique_ptr<Snapshot> snapshot;
    const uint32_t result = read ? Snapshot::Open(path, &snapshot) : Store::Open(path, Options(), &store);
    SetDiagnosticHandler(nullptr, nullptr);
    if (result != kStatusNoPermission) return static_cast<int>(result % 100) + 1;
    return said.find("Permission denied") != std::string::npos ? 0 : 50;
  };
  // The directory can't be searched.
  EXPECT_EQ(AsNobody([&] { return status(path_, false); }), 0);
  EXPECT_EQ(AsNobody([&] { return status(path_, true); }), 0);
  // The directory can be read, its files can't.
  ASSERT_EQ(chmod(path_.c_str(), 0755), 0);
  EXPECT_EQ(AsNobody([&] { return status(path_, false); }), 0);
  EXPECT_EQ(AsNobody([&] { return status(path_, true); }), 0);
  // Nothing can be made in it, or beside it.
  EXPECT_EQ(AsNobody([&] { return status(open, false); }), 0);
  EXPECT_EQ(AsNobody([&] { return status(directory_.PathOf("new"), false); }), 0);
  EXPECT_FALSE(std::filesystem::exists(directory_.PathOf("new")));
  // The files can be read and not be written: only a snapshot can be had.
  for (const auto& entry : std::filesystem::directory_iterator(path_)) chmod(entry.path().c_str(), 0644);
  EXPECT_EQ(AsNobody([&] { return status(path_, false); }), 0);
  EXPECT_EQ(AsNobody([&] {
              std::unique_ptr<Snapshot> snapshot;
              if (Snapshot::Open(path_, &snapshot) != kStatusOk) return 1;
              return Get(*snapshot, "flushed") == "1" && Get(*snapshot, "logged") == "2" ? 0 : 2;
            }),
            0);
  // One block can't be read.
  ASSERT_EQ(chmod(BlockPath().c_str(), 0600), 0);
  EXPECT_EQ(AsNobody([&] { return status(path_, true); }), 0);
  EXPECT_EQ(Get(*Open(), "flushed"), "1");
}

TEST_F(StorePermissionTest, ACheckpointWithoutPermissionLeavesNothing) {
  ASSERT_EQ(geteuid(), 0u) << "only root can give up rights and keep the files: run it as root";
  const std::string root = directory_.PathOf("root");
  ASSERT_EQ(mkdir(root.c_str(), 0777), 0);
  ASSERT_EQ(chmod(root.c_str(), 0777), 0);
  ASSERT_EQ(chmod(directory_.Path().c_str(), 0755), 0);
  EXPECT_EQ(AsNobody([&] {
              std::unique_ptr<Store> store;
              if (Store::Open(root + "/store", Options(), &store) != kStatusOk) return 1;
              if (store->Put("key", "value") != kStatusOk) return 2;
              return store->Checkpoint(directory_.PathOf("copy")) == kStatusNoPermission ? 0 : 3;
            }),
            0);
  EXPECT_FALSE(std::filesystem::exists(directory_.PathOf("copy")));
  EXPECT_FALSE(std::filesystem::exists(directory_.PathOf("copy.partial")));
}

// A file system that can only be read, where the system lets a test mount one.
class ReadOnlyMount {
 public:
  explicit ReadOnlyMount(const std::string& path) : path_(path) {
    isMounted_ = mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
    isReadOnly_ = isMounted_ &&
                  mount(path.c_str(), path.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
  }
  ~ReadOnlyMount() {
    if (isMounted_) umount2(path_.c_str(), MNT_DETACH);
  }
  ReadOnlyMount(const ReadOnlyMount&) = delete;
  ReadOnlyMount& operator=(const ReadOnlyMount&) = delete;
  bool IsReadOnly() const { return isReadOnly_; }

 private:
  const std::string path_;
  bool isMounted_ = false;
  bool isReadOnly_ = false;
};

TEST_F(StorePermissionTest, AReadOnlyFileSystemGivesSnapshotsAndNoStore) {
  MakeStore();
  const std::string empty = path_ + "/../empty";
  ASSERT_EQ(mkdir(empty.c_str(), 0700), 0);
  {
    const ReadOnlyMount mounted(path_);
    const ReadOnlyMount mountedEmpty(empty);
    ASSERT_TRUE(mounted.IsReadOnly() && mountedEmpty.IsReadOnly())
        << "takes the right to mount: run it as root";
    std::string said;
    SetDiagnosticHandler(&Note, &said);
    EXPECT_EQ(TryOpen(), kStatusNoPermission);
    EXPECT_NE(said.find("Read-only file system"), std::string::npos) << said;
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::Open(empty, Options(), &store), kStatusNoPermission);
    EXPECT_EQ(Store::Open(empty + "/below", Options(), &store), kStatusNoPermission);
    SetDiagnosticHandler(nullptr, nullptr);
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
    EXPECT_EQ(Get(*snapshot, "flushed"), "1");
    EXPECT_EQ(Get(*snapshot, "logged"), "2");
  }
  EXPECT_EQ(Get(*Open(), "logged"), "2");
}

}  // namespace
}  // namespace Kestrun::Testing
