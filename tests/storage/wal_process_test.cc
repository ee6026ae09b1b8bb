// One log in several processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "base/page_size.h"
#include "tests/storage/wal_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"
#include "tests/support/random_run.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

constexpr uint32_t kSize = 4000;

// A second process that has the log open and does with it what it is told.
class WalElsewhere {
 public:
  explicit WalElsewhere(const std::string& path, uint32_t walSize = kSize)
      : child_([=](ChildLink& parent) { return Serve(path, walSize, parent); }) {}

  uint32_t Insert(const std::string& key, const std::string& value) {
    return static_cast<uint32_t>(std::stoul(Ask("insert", key, value)));
  }
  uint32_t Reset() { return static_cast<uint32_t>(std::stoul(Ask("reset", "", ""))); }
  std::string Get(const std::string& key) { return Ask("get", key, ""); }

 private:
  std::string Ask(const std::string& order, const std::string& key, const std::string& value) {
    std::string answer;
    EXPECT_TRUE(child_.Send(order) && child_.Send(key) && child_.Send(value) && child_.Receive(&answer));
    return answer;
  }

  static int Serve(const std::string& path, uint32_t walSize, ChildLink& parent) {
    auto wal = OpenWal(path, walSize);
    std::string order;
    std::string key;
    std::string value;
    while (parent.Receive(&order) && parent.Receive(&key) && parent.Receive(&value)) {
      std::string answer;
      if (order == "get") {
        answer = Testing::Get(*wal, key);
      } else {
        answer = std::to_string(order == "insert" ? Testing::Insert(*wal, key, value) : Testing::Reset(*wal));
      }
      if (!parent.Send(answer)) return 1;
    }
    return 0;
  }

  ChildProcess child_;
};

// The clock stands still in all processes: records written before and after a reset differ in nothing but
// what the test makes different.
class WalProcessTest : public WalTest {
 protected:
  void OpenBoth() {
    elsewhere_ = std::make_unique<WalElsewhere>(path_);
    ASSERT_EQ(elsewhere_->Get("anything"), kMissing);
    wal_ = OpenWal(path_, kSize);
  }

  std::unique_ptr<WalElsewhere> elsewhere_;
  std::unique_ptr<Wal> wal_;
};

TEST_F(WalProcessTest, EachSeesAtOnceWhatTheOtherAppends) {
  OpenBoth();
  for (int i = 0; i < 10; ++i) {
    const std::string key = "key" + std::to_string(i % 3);
    const std::string value = "value" + std::to_string(i);
    if (i % 2 == 0) {
      ASSERT_EQ(elsewhere_->Insert(key, value), kStatusOk);
      EXPECT_EQ(Get(*wal_, key), value);
    } else {
      ASSERT_EQ(Insert(*wal_, key, value), kStatusOk);
      EXPECT_EQ(elsewhere_->Get(key), value);
    }
  }
}

TEST_F(WalProcessTest, AnEmptiedLogIsEmptyElsewhere) {
  OpenBoth();
  ASSERT_EQ(elsewhere_->Insert("a", "1"), kStatusOk);
  ASSERT_EQ(Insert(*wal_, "b", "2"), kStatusOk);
  ASSERT_EQ(elsewhere_->Reset(), kStatusOk);
  EXPECT_EQ(Keys(*wal_), KeyList());
  EXPECT_EQ(Get(*wal_, "a"), kMissing);
  ASSERT_EQ(Insert(*wal_, "c", "3"), kStatusOk);
  EXPECT_EQ(elsewhere_->Get("c"), "3");
  EXPECT_EQ(elsewhere_->Get("b"), kMissing);
}

TEST_F(WalProcessTest, WhatIsWrittenAfterAResetIsSeenWhileTheLogIsShorterThanBefore) {
  OpenBoth();
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(elsewhere_->Insert(key, "old"), kStatusOk);
  EXPECT_EQ(Keys(*wal_).size(), 3u);
  ASSERT_EQ(elsewhere_->Reset(), kStatusOk);
  ASSERT_EQ(elsewhere_->Insert("d", "new"), kStatusOk);
  EXPECT_EQ(Get(*wal_, "d"), "new");
  EXPECT_EQ(Keys(*wal_), KeyList{"d"});
}

TEST_F(WalProcessTest, WhatIsWrittenAfterAResetIsSeenWhenTheLogIsLongerThanBefore) {
  OpenBoth();
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(elsewhere_->Insert(key, "old"), kStatusOk);
  EXPECT_EQ(Keys(*wal_).size(), 3u);
  ASSERT_EQ(elsewhere_->Reset(), kStatusOk);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(elsewhere_->Insert("new" + std::to_string(i), std::string(static_cast<size_t>(i) * 3, 'n')),
              kStatusOk);
  }
  EXPECT_EQ(Keys(*wal_).size(), 20u);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Get(*wal_, "new" + std::to_string(i)), std::string(static_cast<size_t>(i) * 3, 'n'));
  }
  EXPECT_EQ(Get(*wal_, "a"), kMissing) << "the place of its value has other bytes now";
}

TEST_F(WalProcessTest, TheSameKeysAndSizesWithOtherValuesReadAsTheNewValues) {
  OpenBoth();
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(elsewhere_->Insert(key, "old"), kStatusOk);
  EXPECT_EQ(Get(*wal_, "b"), "old");
  ASSERT_EQ(elsewhere_->Reset(), kStatusOk);
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(elsewhere_->Insert(key, "new"), kStatusOk);
  for (const char* key : {"a", "b", "c"}) EXPECT_EQ(Get(*wal_, key), "new");
}

TEST_F(WalProcessTest, AnAppendFindsOutThatOthersHaveEmptiedTheLog) {
  OpenBoth();
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(Insert(*wal_, key, "old"), kStatusOk);
  ASSERT_EQ(elsewhere_->Reset(), kStatusOk);
  ASSERT_EQ(elsewhere_->Insert("theirs", "1"), kStatusOk);
  ASSERT_EQ(Insert(*wal_, "ours", "2"), kStatusOk);
  EXPECT_EQ(Keys(*wal_), (KeyList{"ours", "theirs"}));
  EXPECT_EQ(elsewhere_->Get("ours"), "2");
}

TEST_F(WalProcessTest, AForkedChildGoesOnWithTheIndexOfItsParent) {
  auto wal = OpenWal(path_, kSize);
  ASSERT_EQ(Insert(*wal, "before", "1"), kStatusOk);
  ChildProcess child([&](ChildLink&) {
    if (Testing::Get(*wal, "before") != "1") return 1;
    return Testing::Insert(*wal, "in the child", "2") == kStatusOk ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(Keys(*wal), (KeyList{"before", "in the child"}));
}

// Opening, closing and looking at the log go on while others append.
TEST_F(WalProcessTest, ThreadsOpenAppendAndReadThroughHandlesOfTheirOwn) {
  constexpr int kThreads = 3;
  const int rounds = static_cast<int>(TestSize(300, 20000));
  const auto walSize = static_cast<uint32_t>(1000 + kThreads * rounds * 60);
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      const std::string key = "thread " + std::to_string(number);
      std::unique_ptr<Wal> wal;
      for (int round = 0; round < rounds; ++round) {
        if (round % 10 == number && OpenWal(path_, walSize, &wal) != kStatusOk) ++bad;
        if (wal == nullptr) continue;
        const std::string value = std::to_string(round);
        if (Insert(*wal, key, value) != kStatusOk || Get(*wal, key) != value) ++bad;
        if (Keys(*wal).size() > kThreads) ++bad;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(bad, 0);
  auto wal = OpenWal(path_, walSize);
  for (int number = 0; number < kThreads; ++number) {
    EXPECT_EQ(Get(*wal, "thread " + std::to_string(number)), std::to_string(rounds - 1));
  }
}

void EndWithSuccess(int) {
  _exit(42);
}

// The header lies in the first page. Where that can't be written the process ends in the middle of an append:
// whatever had to be written before the header is there.
TEST_F(WalProcessTest, AProcessKilledBeforeItPublishesARecordLeavesTheLogAsItWas) {
  const auto page = static_cast<size_t>(PageSize());
  const std::string filler(3 * page, 'f');
  const auto walSize = static_cast<uint32_t>(8 * page);
  ChildProcess child([&](ChildLink&) {
    auto wal = OpenWal(path_, walSize);
    if (Testing::Insert(*wal, "filler", filler) != kStatusOk) return 1;
    const std::vector<std::string> mappings = MappingsOf(path_);
    if (mappings.size() != 1) return 2;
    void* base = reinterpret_cast<void*>(std::stoul(mappings[0], nullptr, 16));
    struct sigaction end = {};
    end.sa_handler = EndWithSuccess;
    if (sigaction(SIGSEGV, &end, nullptr) != 0 || mprotect(base, page, PROT_READ) != 0) return 3;
    IgnoreStatus(Testing::Insert(*wal, "k", "value"));  // does not come back
    return 4;
  });
  EXPECT_EQ(child.Wait(), 42);

  LogImage image(walSize);
  image.Append({"filler", filler, false, clock_.Now(), kTtl});
  const std::string header = image.Bytes().substr(0, 128);
  image.Append({"k", "value", false, clock_.Now(), kTtl});
  EXPECT_EQ(Bytes().substr(128), image.Bytes().substr(128)) << "the record was complete";
  EXPECT_EQ(ToHex(Bytes().substr(0, 128)), ToHex(header)) << "and not yet shown";

  auto wal = OpenWal(path_, walSize);
  EXPECT_EQ(Keys(*wal), KeyList{"filler"});
  EXPECT_EQ(Insert(*wal, "later", "v"), kStatusOk);
  WriteFile(path_ + ".copy", Bytes());
  EXPECT_EQ(Keys(*OpenWal(path_ + ".copy", walSize)), (KeyList{"filler", "later"}));
}

// Every process opens the file and appends a record at once. The file is missing, empty or too short before.
TEST_F(WalProcessTest, ProcessesThatOpenAFreshLogAtTheSameMomentLoseNoRecord) {
  constexpr int kProcesses = 3;
  const int rounds = static_cast<int>(TestSize(60, 3000));
  const auto pathOf = [&](int round) { return path_ + "." + std::to_string(round); };
  const SharedMemory<std::atomic<int>> started;
  for (int round = 1; round < rounds; ++round) {
    if (round % 3 == 1) WriteFile(pathOf(round), "");
    if (round % 3 == 2) WriteFile(pathOf(round), std::string(200, 'x'));
  }
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int number = 0; number < kProcesses; ++number) {
    children.push_back(std::make_unique<ChildProcess>([&, number](ChildLink& parent) {
      for (int round = 0; round < rounds; ++round) {
        parent.Signal();
        while (*started <= round) usleep(10);
        std::unique_ptr<Wal> wal;
        if (OpenWal(pathOf(round), kSize, &wal) != kStatusOk || wal == nullptr) return 1;
        uint32_t status;
        do {
          status = Insert(*wal, std::to_string(number), "v");
        } while (status == kStatusLockFailed);
        if (status != kStatusOk) return 2;
      }
      return 0;
    }));
  }
  for (int round = 0; round < rounds; ++round) {
    for (auto& child : children) ASSERT_TRUE(child->Await()) << round;
    *started = round + 1;
  }
  for (auto& child : children) ASSERT_EQ(child->Wait(), 0);
  for (int round = 0; round < rounds; ++round) {
    ASSERT_EQ(Keys(*OpenWal(pathOf(round), kSize)), (KeyList{"0", "1", "2"})) << round;
  }
}

// What the log must say, kept under the log's own lock.
struct Model {
  static constexpr int kKeys = 12;
  uint64_t versions[kKeys] = {};  // 0: not in the log
  uint64_t lastVersion = 0;
  uint64_t resets[4] = {};  // by each process
  std::atomic<bool> go{false};
};

std::string ValueOf(int key, uint64_t version) {
  const std::string head = "key " + std::to_string(key) + " version " + std::to_string(version) + " ";
  return head + std::string(Mix(version) % 150, static_cast<char>('a' + version % 26));
}

class WalModelTest : public WalTest, public testing::WithParamInterface<bool> {
 protected:
  // Tells the log of resets elsewhere, as the engine does for those that come with a flush.
  void Notice(Wal& wal, int self) const {
    if (!GetParam()) return;
    uint64_t others = 0;
    for (int process = 0; process < 4; ++process) {
      if (process != self) others += model_->resets[process];
    }
    wal.OnManifestChanges(others);
  }

  bool Check(Wal& wal, int self, int key) const {
    const FileLockGuard lock(wal.File(), LockLevel::Shared);
    if (lock.Status() != kStatusOk) return true;
    Notice(wal, self);
    DataEntry entry = {};
    const bool found = wal.Lookup(Key("key" + std::to_string(key)), &entry);
    if (!found || model_->versions[key] == 0) return !found && model_->versions[key] == 0;
    const std::string expected = ValueOf(key, model_->versions[key]);
    const uint8_t* value = wal.ViewValue(entry);
    return value != nullptr && expected == std::string(reinterpret_cast<const char*>(value), entry.valueSize);
  }

  bool CheckAll(Wal& wal, int self) const {
    const FileLockGuard lock(wal.File(), LockLevel::Shared);
    if (lock.Status() != kStatusOk) return true;
    Notice(wal, self);
    int seen = 0;
    wal.Enumerate(Key("key"), Key("kez"), [&](const Key&) {
      ++seen;
      return false;
    });
    int expected = 0;
    for (const uint64_t version : model_->versions) expected += version != 0 ? 1 : 0;
    return seen == expected;
  }

  // Every append first: what is checked later must hold.
  bool Write(Wal& wal, int self, int key) const {
    const FileLockGuard lock(wal.File(), LockLevel::Exclusive);
    if (lock.Status() != kStatusOk) return true;
    Notice(wal, self);
    const uint64_t version = ++model_->lastVersion;
    const std::string value = ValueOf(key, version);
    const auto append = [&] {
      return wal.Insert(Key("key" + std::to_string(key)), kTtl, value.data(),
                        static_cast<uint32_t>(value.size()));
    };
    uint32_t status = append();
    if (status == kStatusWalFull) {
      Empty(wal, self);
      status = append();
    }
    model_->versions[key] = version;
    return status == kStatusOk;
  }

  void Empty(Wal& wal, int self) const {
    IgnoreStatus(wal.Reset());
    for (uint64_t& version : model_->versions) version = 0;
    ++model_->resets[self];
    if (GetParam()) return;
    // Nothing tells of a reset that comes with no flush but another record in the place of the first one.
    const std::string first = "first " + std::to_string(++model_->lastVersion);
    IgnoreStatus(wal.Insert(Key(first), kTtl, nullptr, 0));
  }

  int Work(int self, uint64_t steps) const {
    auto wal = OpenWal(path_, kSize);
    std::mt19937_64 random = TestRandom(static_cast<uint64_t>(self));
    CapturedStdout output;  // what a full log says
    while (!model_->go) usleep(10);
    for (uint64_t step = 0; step < steps; ++step) {
      const uint64_t draw = random() % 100;
      const int key = static_cast<int>(random() % Model::kKeys);
      if (draw < 45) {
        if (!Write(*wal, self, key)) return 10;
      } else if (draw < 90) {
        if (!Check(*wal, self, key)) return 11;
      } else if (draw < 98) {
        if (!CheckAll(*wal, self)) return 12;
      } else {
        const FileLockGuard lock(wal->File(), LockLevel::Exclusive);
        if (lock.Status() == kStatusOk) Empty(*wal, self);
      }
    }
    return 0;
  }

  const SharedMemory<Model> model_;
};

TEST_P(WalModelTest, EveryProcessReadsExactlyWhatWasWrittenSinceTheLastReset) {
  const uint64_t steps = TestSize(10000, 1000000);
  TestSeed();
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int self = 0; self < 4; ++self) {
    children.push_back(std::make_unique<ChildProcess>([=, this](ChildLink&) { return Work(self, steps); }));
  }
  model_->go = true;
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);
  EXPECT_GT(model_->lastVersion, steps / 2);
}

INSTANTIATE_TEST_SUITE_P(Resets, WalModelTest, testing::Bool(), [](const auto& info) {
  return info.param ? "ComeWithAMoveOfTheManifest" : "ComeUnannounced";
});

}  // namespace
}  // namespace Kestrun::Testing
