// Transactions: bodies of every kind, and what the others see meanwhile.
#include <stdexcept>
#include <thread>

#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreTransactionTest : public StoreTest {
 protected:
  static uint32_t Add(Store& store, const std::string& key, int amount) {
    return store.Transact([&](Transaction& transaction) {
      std::optional<std::string> value;
      if (const uint32_t status = transaction.Get(key, &value); status != kStatusOk) return status;
      return transaction.Put(key, std::to_string(std::atoi(value.value_or("0").c_str()) + amount));
    });
  }
  // Whether another process can write at once.
  void ExpectNothingLocked() {
    ChildProcess other([&](ChildLink&) {
      StoreOptions options = Options();
      options.busyTimeout = 0;
      std::unique_ptr<Store> store;
      if (Store::Open(path_, options, &store) != kStatusOk) return 1;
      return store->Put("from the other", "x") == kStatusOk ? 0 : 2;
    });
    EXPECT_EQ(other.Wait(), 0);
  }
};

TEST_F(StoreTransactionTest, ABodyReadsBlocksLogAndItsOwnWrites) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("block", "1"), kStatusOk);
  ASSERT_EQ(store->Put("deleted", "1"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("log", "2"), kStatusOk);
  ASSERT_EQ(store->Delete("deleted"), kStatusOk);
  EXPECT_EQ(store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(Get(transaction, "block"), "1");
    EXPECT_EQ(Get(transaction, "log"), "2");
    EXPECT_EQ(Get(transaction, "deleted"), kNothing);
    EXPECT_EQ(transaction.Delete("block"), kStatusOk);
    EXPECT_EQ(Get(transaction, "block"), kNothing);
    EXPECT_EQ(transaction.Put("block", ""), kStatusOk);
    EXPECT_EQ(Get(transaction, "block"), "");
    EXPECT_EQ(transaction.Put("", "x"), kStatusInvalid);
    EXPECT_EQ(transaction.Put("key", "x", 0), kStatusInvalid);
    EXPECT_EQ(transaction.Delete("\xFF"), kStatusInvalid);
    EXPECT_EQ(transaction.Get("key", nullptr), kStatusInvalid);
    EXPECT_EQ(Get(transaction, ""), "<kStatusInvalid>");
    return kStatusOk;
  }),
            kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"block", ""}, {"log", "2"}}));
}

TEST_F(StoreTransactionTest, WhatABodyThrowsPassesThroughAndEveryLockIsGivenUp) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "before"), kStatusOk);
  EXPECT_THROW(static_cast<void>(store->Transact([](Transaction& transaction) -> uint32_t {
                 EXPECT_EQ(transaction.Put("key", "after"), kStatusOk);
                 throw std::runtime_error("no");
               })),
               std::runtime_error);
  ExpectNothingLocked();
  EXPECT_THROW(static_cast<void>(store->Transact([](Transaction&) -> uint32_t { throw std::bad_alloc(); })),
               std::bad_alloc);
  ExpectNothingLocked();
  EXPECT_EQ(LocksOnFile(path_ + "/wal_v5"), "");
  EXPECT_EQ(Get(*store, "key"), "before");
  EXPECT_EQ(store->Put("key", "after"), kStatusOk);
  bool done = false;
  std::thread other([&] { done = store->Put("thread", "x") == kStatusOk; });
  other.join();
  EXPECT_TRUE(done);
}

TEST_F(StoreTransactionTest, EveryCallOfTheStoreFromItsBodyIsRefused) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "before"), kStatusOk);
  EXPECT_EQ(store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(store->Put("a", "1"), kStatusInvalid);
    EXPECT_EQ(store->Delete("key"), kStatusInvalid);
    EXPECT_EQ(Get(*store, "key"), "<kStatusInvalid>");
    bool alive = true;
    EXPECT_EQ(store->Contains("key", &alive), kStatusInvalid);
    EXPECT_TRUE(alive);
    EXPECT_EQ(store->DeleteRange(Range::All()), kStatusInvalid);
    WriteBatch batch;
    EXPECT_EQ(batch.Put("a", "1"), kStatusOk);
    EXPECT_EQ(store->Write(batch), kStatusInvalid);
    EXPECT_EQ(store->Write(WriteBatch()), kStatusInvalid);
    EXPECT_EQ(store->Transact([](Transaction&) { return kStatusOk; }), kStatusInvalid);
    std::unique_ptr<Snapshot> snapshot;
    EXPECT_EQ(store->TakeSnapshot(&snapshot), kStatusInvalid);
    EXPECT_EQ(snapshot, nullptr);
    EXPECT_EQ(store->Flush(), kStatusInvalid);
    EXPECT_EQ(store->Compact(), kStatusInvalid);
    EXPECT_EQ(store->Clear(), kStatusInvalid);
    EXPECT_EQ(store->Sync(), kStatusInvalid);
    EXPECT_EQ(store->Checkpoint(directory_.PathOf("copy")), kStatusInvalid);
    StoreStats stats;
    EXPECT_EQ(store->GetStats(&stats), kStatusInvalid);
    return transaction.Put("key", "after");
  }),
            kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"key", "after"}}));
}

TEST_F(StoreTransactionTest, SnapshotOpenInABodyShowsTheStateBefore) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "before"), kStatusOk);
  std::unique_ptr<Snapshot> snapshot;
  const uint32_t status = store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(transaction.Put("key", "after"), kStatusOk);
    EXPECT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
    return kStatusOk;
  });
  ASSERT_NE(snapshot, nullptr);
  EXPECT_EQ(Get(*snapshot, "key"), "before");
  // Its lock on the log's file is the one of the process: the transaction is done, or says that it lost it.
  EXPECT_EQ(LocksOnFile(path_ + "/wal_v5"), "");
  ExpectNothingLocked();
  EXPECT_TRUE(status == kStatusOk || status == kStatusLockFailed) << status;
  EXPECT_EQ(Get(*store, "key"), status == kStatusOk ? "after" : "before");
}

// Another handle on the same files: its call may take effect;
// the transaction has lost its lock then and says so.
TEST_F(StoreTransactionTest, CallsThroughAnotherHandleDoNotMixWithTheTransaction) {
  const std::unique_ptr<Store> store = Open();
  const std::unique_ptr<Store> second = Open();
  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_, {kLogSize, 0}, &opened), kStatusOk);
  const std::unique_ptr<LSDBImpl> older(opened);
  const struct {
    const char* what;
    std::function<void()> call;
  } rows[] = {
      {"Put", [&] { EXPECT_EQ(second->Put("second", "x"), kStatusOk); }},
      {"Get", [&] { EXPECT_EQ(Get(*second, "key"), "before"); }},
      {"Transact",
       [&] {
         EXPECT_EQ(second->Transact([](Transaction& inner) { return inner.Put("inner", "x"); }), kStatusOk);
       }},
      {"Flush", [&] { EXPECT_EQ(second->Flush(), kStatusOk); }},
      {"TakeSnapshot", [&] { EXPECT_EQ(Get(*Take(*second), "key"), "before"); }},
      {"open and close", [&] { EXPECT_NE(Open(), nullptr); }},
      {"older Insert", [&] { EXPECT_EQ(older->Insert(Key("older"), 100, "x", 1), kStatusOk); }},
      {"older Contains", [&] { EXPECT_TRUE(older->Contains(Key("key"))); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    CapturedStdout printed;
    ASSERT_EQ(store->Put("key", "before"), kStatusOk);
    const uint32_t status = store->Transact([&](Transaction& transaction) {
      EXPECT_EQ(transaction.Put("key", "after"), kStatusOk);
      row.call();
      EXPECT_EQ(Get(transaction, "key"), "after");
      return kStatusOk;
    });
    EXPECT_EQ(LocksOnFile(path_ + "/wal_v5"), "");
    ExpectNothingLocked();
    EXPECT_TRUE(status == kStatusOk || status == kStatusLockFailed) << status;
    EXPECT_EQ(Get(*store, "key"), status == kStatusOk ? "after" : "before");
  }
}

TEST_F(StoreTransactionTest, OthersWaitForABodyAndSeeAllOfItAfterwards) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "before"), kStatusOk);
  ChildProcess other([&](ChildLink& parent) {
    const std::unique_ptr<Store> mine = Open();
    parent.Await();
    parent.Signal();  // from here on it is in the way
    return Get(*mine, "key") == "after" && Get(*mine, "second") == "after" ? 0 : 1;
  });
  std::string seen;
  std::thread waiting;
  EXPECT_EQ(store->Transact([&](Transaction& transaction) {
    EXPECT_EQ(transaction.Put("key", "after"), kStatusOk);
    waiting = std::thread([&] { seen = Get(*store, "key") + Get(*store, "second"); });
    other.Signal();
    EXPECT_TRUE(other.Await());
    return transaction.Put("second", "after");
  }),
            kStatusOk);
  waiting.join();
  EXPECT_EQ(seen, "afterafter");
  EXPECT_EQ(other.Wait(), 0);
}

TEST_F(StoreTransactionTest, CountersOfTwoProcessesLoseNoStep) {
  const auto steps = static_cast<int>(TestSize(400, 20000));
  const auto count = [&](ChildLink& parent) {
    const std::unique_ptr<Store> store = Open();
    parent.Await();
    for (int i = 0; i < steps; ++i) {
      if (Add(*store, "counter", 1) != kStatusOk) return 1;
    }
    return 0;
  };
  static_cast<void>(Open());
  ChildProcess first(count);
  ChildProcess second(count);
  first.Signal();
  second.Signal();
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
  EXPECT_EQ(Get(*Open(), "counter"), std::to_string(2 * steps));
}

// Write skew: each of two processes takes from its own key only while the sum of both allows it.
TEST_F(StoreTransactionTest, WhatWasReadIsStillSoWhenTheBatchIsWritten) {
  const auto rounds = static_cast<int>(TestSize(200, 5000));
  {
    const std::unique_ptr<Store> store = Open();
    ASSERT_EQ(store->Put("x", std::to_string(rounds)), kStatusOk);
    ASSERT_EQ(store->Put("y", "0"), kStatusOk);
  }
  const auto take = [&](ChildLink& parent, const char* key) {
    const std::unique_ptr<Store> store = Open();
    parent.Await();
    for (int i = 0; i < rounds; ++i) {
      const uint32_t status = store->Transact([&](Transaction& transaction) {
        const int sum = std::atoi(Get(transaction, "x").c_str()) + std::atoi(Get(transaction, "y").c_str());
        if (sum <= 0) return kStatusOk;
        return transaction.Put(key, std::to_string(std::atoi(Get(transaction, key).c_str()) - 1));
      });
      if (status != kStatusOk) return 1;
    }
    return 0;
  };
  ChildProcess first([&](ChildLink& parent) { return take(parent, "x"); });
  ChildProcess second([&](ChildLink& parent) { return take(parent, "y"); });
  first.Signal();
  second.Signal();
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
  const std::unique_ptr<Store> store = Open();
  EXPECT_EQ(std::atoi(Get(*store, "x").c_str()) + std::atoi(Get(*store, "y").c_str()), 0);
}

}  // namespace
}  // namespace Kestrun::Testing
