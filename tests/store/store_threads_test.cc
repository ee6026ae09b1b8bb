// Threads that write, take snapshots, walk them, flush, merge and clear, all on one directory.
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "tests/store/store_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreThreadsTest : public StoreTest, public testing::WithParamInterface<bool> {
 protected:
  static constexpr int kKeys = 20;
  static constexpr int kEach = 100;

  static std::string KeyOf(uint64_t i) { return "account" + std::to_string(100 + i); }
};

// The amounts under all keys together stay the same in every state that anybody sees: writers only move them.
TEST_P(StoreThreadsTest, EverySnapshotHasTheSameSumWhileAmountsMove) {
  StoreOptions options = Options(4096);
  options.autoCompact = true;
  const std::unique_ptr<Store> store = Open(options);
  std::unique_ptr<Store> second;
  if (GetParam()) second = Open(options);
  Store& other = GetParam() ? *second : *store;
  {
    WriteBatch batch;
    for (int i = 0; i < kKeys; ++i) {
      ASSERT_EQ(batch.Put(KeyOf(static_cast<uint64_t>(i)), std::to_string(kEach)), kStatusOk);
    }
    ASSERT_EQ(store->Write(batch), kStatusOk);
  }
  const uint64_t moves = TestSize(1500, 100000);
  std::atomic<int> running{2};
  std::vector<std::string> wrong(5);
  const auto move = [&](size_t number, Store& mine) {
    std::mt19937_64 random = TestRandom(50 + number);
    for (uint64_t i = 0; i < moves && wrong[number].empty(); ++i) {
      const std::string from = KeyOf(random() % kKeys);
      const std::string to = KeyOf(random() % kKeys);
      if (from == to) continue;
      const int amount = static_cast<int>(random() % 50);
      const uint32_t status = mine.Transact([&](Transaction& transaction) {
        const int had = std::atoi(Get(transaction, from).c_str());
        const int has = std::atoi(Get(transaction, to).c_str());
        if (const uint32_t put = transaction.Put(from, std::to_string(had - amount)); put != kStatusOk)
          return put;
        return transaction.Put(to, std::to_string(has + amount));
      });
      if (status != kStatusOk) wrong[number] = StatusWord(status);
    }
    --running;
  };
  const auto look = [&](size_t number, Store& mine) {
    std::mt19937_64 random = TestRandom(50 + number);
    std::vector<std::unique_ptr<Snapshot>> kept;
    while (running != 0 && wrong[number].empty()) {
      std::unique_ptr<Snapshot> snapshot;
      const uint32_t status =
          random() % 4 == 0 ? Snapshot::Open(path_, &snapshot) : mine.TakeSnapshot(&snapshot);
      if (status != kStatusOk) {
        wrong[number] = StatusWord(status);
        return;
      }
      kept.push_back(std::move(snapshot));
      const Snapshot& seen = *kept[random() % kept.size()];
      const Pairs pairs = Walk(seen, Range::All(), random() % 2 == 0);
      int sum = 0;
      for (const auto& [key, value] : pairs) {
        sum += std::atoi(value.c_str());
        if (Get(seen, key) != value) wrong[number] = "Get differs from the walk";
      }
      if (pairs.size() != kKeys || sum != kKeys * kEach) {
        wrong[number] = std::to_string(pairs.size()) + " keys with " + std::to_string(sum);
      }
      if (kept.size() > 8) kept.erase(kept.begin() + static_cast<ptrdiff_t>(random() % kept.size()));
    }
  };
  const auto tidy = [&](size_t number) {
    for (int i = 0; running != 0; ++i) {
      const uint32_t status = i % 5 == 0 ? store->Compact() : store->Flush();
      StoreStats stats;
      if (status != kStatusOk || store->GetStats(&stats) != kStatusOk) wrong[number] = StatusWord(status);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(move, 0, std::ref(*store));
  threads.emplace_back(move, 1, std::ref(other));
  threads.emplace_back(look, 2, std::ref(*store));
  threads.emplace_back(look, 3, std::ref(other));
  threads.emplace_back(tidy, 4);
  for (std::thread& thread : threads) thread.join();
  for (const std::string& one : wrong) EXPECT_EQ(one, "");
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreThreadsTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "TwoOnOneDirectory" : "One";
                         });

// A snapshot that goes in one thread, in the moment in which another one begins to fill the log anew.
TEST_F(StoreThreadsTest, SnapshotsGoWhileTheLogIsReset) {
  const std::unique_ptr<Store> store = Open(Options(4096));
  const int rounds = static_cast<int>(TestSize(1500, 50000));
  std::atomic<bool> done{false};
  std::vector<std::string> wrong(2);
  std::vector<std::thread> readers;
  for (size_t i = 0; i < wrong.size(); ++i) {
    readers.emplace_back([&, i] {
      while (!done && wrong[i].empty()) {
        std::unique_ptr<Snapshot> snapshot;
        if (store->TakeSnapshot(&snapshot) != kStatusOk) wrong[i] = "no snapshot";
        if (snapshot == nullptr) return;
        const Pairs pairs = Walk(*snapshot);
        if (!pairs.empty() && pairs.back().second != pairs.front().second) wrong[i] = "a mixture";
      }
    });
  }
  for (int round = 0; round < rounds; ++round) {
    WriteBatch batch;
    for (int i = 0; i < 5; ++i)
      ASSERT_EQ(batch.Put("k" + std::to_string(i), std::to_string(round)), kStatusOk);
    ASSERT_EQ(store->Write(batch), kStatusOk);
    if (round % 3 == 0) {
      ASSERT_EQ(store->Clear(), kStatusOk);
    }
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  for (const std::string& one : wrong) EXPECT_EQ(one, "");
}

// With so many records waiting, the store's thread orders them while others write, walk and flush.
TEST_P(StoreThreadsTest, TheThreadOrdersTheLogWhileItIsWrittenWalkedAndFlushed) {
  constexpr int kBatches = 300;
  constexpr int kBatch = 100;
  StoreOptions options = Options(1 << 20);
  options.autoCompact = true;
  const std::unique_ptr<Store> store = Open(options);
  ASSERT_EQ(store->Put("first", "flush"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  // Not in order, and each key twice.
  const auto keyOf = [](int i) { return std::to_string(i * 7919 % (kBatches * kBatch / 2)); };
  std::atomic<bool> done{false};
  std::string wrong;
  std::thread reader([&] {
    std::unique_ptr<Store> second;
    if (GetParam() && Store::Open(path_, options, &second) != kStatusOk) wrong = "opening";
    Store& mine = GetParam() ? *second : *store;
    do {
      std::unique_ptr<Snapshot> snapshot;
      std::unique_ptr<Cursor> cursor;
      if (mine.TakeSnapshot(&snapshot) != kStatusOk) wrong = "a snapshot";
      if (wrong.empty() && snapshot->NewCursor(Range::All(), &cursor) != kStatusOk) wrong = "a cursor";
      if (!wrong.empty()) return;
      std::string last;
      for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
        if (cursor->Key() <= last) wrong = "the order";
        last = cursor->Key();
      }
      if (cursor->Status() != kStatusOk) wrong = StatusWord(cursor->Status());
    } while (!done && wrong.empty());
  });
  for (int i = 0; i < kBatches; ++i) {
    WriteBatch batch;
    for (int k = 0; k < kBatch; ++k) {
      ASSERT_EQ(batch.Put(keyOf(i * kBatch + k), std::to_string(i)), kStatusOk);
    }
    ASSERT_EQ(store->Write(batch), kStatusOk);
  }
  done = true;
  reader.join();
  EXPECT_EQ(wrong, "");
  ASSERT_EQ(store->Flush(), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)).size(), size_t{kBatches * kBatch / 2 + 1});
  for (int k = 0; k < kBatch; ++k) {
    EXPECT_EQ(Get(*store, keyOf((kBatches - 1) * kBatch + k)), std::to_string(kBatches - 1));
  }
}

}  // namespace
}  // namespace Kestrun::Testing
