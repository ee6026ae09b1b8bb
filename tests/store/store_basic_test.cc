#include <random>

#include "tests/store/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

TEST_F(StoreTest, WhatWasPutIsFoundUntilItIsDeleted) {
  const std::unique_ptr<Store> store = Open();
  EXPECT_EQ(Get(*store, "colour"), kNothing);
  EXPECT_EQ(store->Put("colour", "green"), kStatusOk);
  EXPECT_EQ(Get(*store, "colour"), "green");
  EXPECT_EQ(store->Put("colour", ""), kStatusOk);
  EXPECT_EQ(Get(*store, "colour"), "");
  bool alive = false;
  EXPECT_EQ(store->Contains("colour", &alive), kStatusOk);
  EXPECT_TRUE(alive);
  EXPECT_EQ(store->Delete("colour"), kStatusOk);
  EXPECT_EQ(Get(*store, "colour"), kNothing);
  EXPECT_EQ(store->Contains("colour", &alive), kStatusOk);
  EXPECT_FALSE(alive);
}

TEST_F(StoreTest, KeysValuesAndTimesThatCannotBeAreRefused) {
  const std::unique_ptr<Store> store = Open();
  EXPECT_EQ(store->Put("", "x"), kStatusInvalid);
  EXPECT_EQ(store->Put(std::string(65536, 'k'), "x"), kStatusInvalid);
  EXPECT_EQ(store->Put("\xFFkey", "x"), kStatusInvalid);
  EXPECT_EQ(store->Put("key", "x", 0), kStatusInvalid);
  EXPECT_EQ(store->Delete(""), kStatusInvalid);
  EXPECT_EQ(Get(*store, "\xFF"), "<kStatusInvalid>");
  EXPECT_EQ(store->Put("key", std::string(kLogSize, 'x')), kStatusWalFull);
  StoreStats stats;
  EXPECT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 0u);
  EXPECT_EQ(stats.logEntries, 0u);
}

TEST_F(StoreTest, NothingIsPrinted) {
  CapturedStdout printed;
  {
    const std::unique_ptr<Store> store = Open();
    EXPECT_EQ(store->Put("", "x"), kStatusInvalid);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(store->Put("key" + std::to_string(i), "value"), kStatusOk);
    EXPECT_EQ(Get(*store, "key7"), "value");
  }
  EXPECT_EQ(printed.Take(), "");
}

// A store beside a map: whatever is done to both, they show the same, now and in every snapshot.
TEST_F(StoreTest, BehavesLikeAMapThroughFlushesCompactionsAndReopening) {
  std::mt19937_64 random = TestRandom(1);
  std::unique_ptr<Store> store = Open();
  std::map<std::string, std::string> model;
  struct Kept {
    std::unique_ptr<Snapshot> snapshot;
    std::map<std::string, std::string> model;
  };
  std::vector<Kept> kept;
  const auto key = [&] {
    const uint64_t n = random() % 300;
    return n % 3 == 0   ? "k" + std::to_string(n)
           : n % 3 == 1 ? "a-long-key-that-has-a-number-" + std::to_string(n)
                        : std::string(1 + n % 20, static_cast<char>(n % 250));
  };
  for (int step = 0; step < 4000; ++step) {
    const uint64_t what = random() % 1000;
    if (what < 600) {
      const std::string k = key();
      const std::string v(random() % 200, static_cast<char>('a' + step % 26));
      ASSERT_EQ(store->Put(k, v), kStatusOk);
      model[k] = v;
    } else if (what < 800) {
      const std::string k = key();
      ASSERT_EQ(store->Delete(k), kStatusOk);
      model.erase(k);
    } else if (what < 900) {
      const std::string k = key();
      const auto found = model.find(k);
      ASSERT_EQ(Get(*store, k), found == model.end() ? kNothing : found->second) << step;
    } else if (what < 950) {
      WriteBatch batch;
      for (int i = 0; i < 5; ++i) {
        const std::string k = key();
        if (random() % 3 == 0) {
          ASSERT_EQ(batch.Delete(k), kStatusOk);
          model.erase(k);
        } else {
          ASSERT_EQ(batch.Put(k, std::to_string(step)), kStatusOk);
          model[k] = std::to_string(step);
        }
      }
      ASSERT_EQ(store->Write(batch), kStatusOk);
    } else if (what < 965) {
      ASSERT_EQ(store->Flush(), kStatusOk);
    } else if (what < 972) {
      ASSERT_EQ(store->Compact(), kStatusOk);
    } else if (what < 980) {
      Range range;
      range.from = key();
      range.to = key();
      ASSERT_EQ(store->DeleteRange(range), kStatusOk);
      if (range.from < range.to) model.erase(model.lower_bound(range.from), model.lower_bound(range.to));
    } else if (what < 982) {
      ASSERT_EQ(store->Clear(), kStatusOk);
      model.clear();
    } else if (what < 990) {
      store.reset();
      store = Open();
      ASSERT_NE(store, nullptr);
    } else {
      kept.push_back({Take(*store), model});
      if (kept.size() > 5) kept.erase(kept.begin() + static_cast<ptrdiff_t>(random() % kept.size()));
    }
    if (step % 500 == 0) {
      const Pairs expected(model.begin(), model.end());
      const std::unique_ptr<Snapshot> now = Take(*store);
      ASSERT_EQ(Walk(*now), expected) << step;
      ASSERT_EQ(Walk(*now, Range::All(), false), Pairs(expected.rbegin(), expected.rend())) << step;
      std::unique_ptr<Snapshot> opened;
      ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
      ASSERT_EQ(Walk(*opened), expected) << step;
      for (const Kept& one : kept) {
        ASSERT_EQ(Walk(*one.snapshot), Pairs(one.model.begin(), one.model.end())) << step;
        const std::string k = key();
        const auto found = one.model.find(k);
        ASSERT_EQ(Get(*one.snapshot, k), found == one.model.end() ? kNothing : found->second) << step;
      }
    }
  }
}

TEST_F(StoreTest, ABodySeesWhatItWroteAndAFailureWritesNothing) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("n", "1"), kStatusOk);
  EXPECT_EQ(store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(Get(transaction, "n"), "1");
    EXPECT_EQ(transaction.Put("n", "2"), kStatusOk);
    EXPECT_EQ(Get(transaction, "n"), "2");
    EXPECT_EQ(store->Put("other", "x"), kStatusInvalid);
    return kStatusOk;
  }),
            kStatusOk);
  EXPECT_EQ(Get(*store, "n"), "2");
  EXPECT_EQ(Get(*store, "other"), kNothing);
  EXPECT_EQ(store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(transaction.Delete("n"), kStatusOk);
    EXPECT_EQ(Get(transaction, "n"), kNothing);
    return 99u;
  }),
            99u);
  EXPECT_EQ(Get(*store, "n"), "2");
  EXPECT_THROW(static_cast<void>(store->Transact([&](Transaction& transaction) -> uint32_t {
                 EXPECT_EQ(transaction.Put("n", "3"), kStatusOk);
                 throw 1;
               })),
               int);
  EXPECT_EQ(Get(*store, "n"), "2");
  EXPECT_EQ(store->Transact(nullptr), kStatusInvalid);
}

TEST_F(StoreTest, ACheckpointOpensAsAStoreWithTheSameContent) {
  const std::unique_ptr<Store> store = Open();
  for (int i = 0; i < 500; ++i)
    ASSERT_EQ(store->Put("key" + std::to_string(i), std::string(50, 'x')), kStatusOk);
  const std::string copy = directory_.PathOf("copy");
  ASSERT_EQ(store->Checkpoint(copy), kStatusOk);
  EXPECT_EQ(store->Checkpoint(copy), kStatusStoreExists);
  const Pairs expected = Walk(*Take(*store));
  ASSERT_EQ(store->Clear(), kStatusOk);
  std::unique_ptr<Store> opened;
  ASSERT_EQ(Store::Open(copy, Options(), &opened), kStatusOk);
  EXPECT_EQ(Walk(*Take(*opened)), expected);
}

}  // namespace
}  // namespace Kestrun::Testing
