// Times to live, with the clock in the test's hand.
#include <cstdlib>

#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

class StoreTtlTest : public StoreTest {
 protected:
  FakeClock clock_;
};

// Where the entry stands: in the log, in a block, in a block after a partial merge.
enum class Place { Log, Block };

class StoreTtlInPlaceTest : public StoreTtlTest, public testing::WithParamInterface<Place> {
 protected:
  void Settle(Store& store) {
    if (GetParam() == Place::Block) {
      ASSERT_EQ(store.Flush(), kStatusOk);
    }
  }
};

TEST_P(StoreTtlInPlaceTest, AnEntryLivesThroughItsLastSecondAndNoLonger) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("short", "1", 1), kStatusOk);
  ASSERT_EQ(store->Put("longer", "2", 10), kStatusOk);
  ASSERT_EQ(store->Put("for ever", "3"), kStatusOk);
  Settle(*store);
  const auto shown = [&] {
    bool alive = false;
    EXPECT_EQ(store->Contains("short", &alive), kStatusOk);
    EXPECT_EQ(alive, Get(*store, "short") != kNothing);
    EXPECT_EQ(Get(*Take(*store), "short"), Get(*store, "short"));
    return Get(*store, "short") + Get(*store, "longer") + Get(*store, "for ever");
  };
  EXPECT_EQ(shown(), "123");
  clock_.Advance(1);
  EXPECT_EQ(shown(), "123");
  clock_.Advance(1);
  EXPECT_EQ(shown(), std::string(kNothing) + "23");
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"for ever", "3"}, {"longer", "2"}}));
  EXPECT_EQ(Walk(*Take(*store), Range::All(), false), (Pairs{{"longer", "2"}, {"for ever", "3"}}));
  clock_.Advance(9);
  EXPECT_EQ(shown(), std::string(kNothing) + kNothing + "3");
  clock_.Advance(uint64_t{130} * 365 * 86400);
  EXPECT_EQ(Get(*store, "for ever"), "3");
}

TEST_P(StoreTtlInPlaceTest, AnExpiredEntryHidesTheOlderOneBelowIt) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "old"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("key", "new", 5), kStatusOk);
  Settle(*store);
  EXPECT_EQ(Get(*store, "key"), "new");
  clock_.Advance(6);
  EXPECT_EQ(Get(*store, "key"), kNothing);
  EXPECT_EQ(Walk(*Take(*store)), Pairs());
  ASSERT_EQ(store->Compact(), kStatusOk);
  EXPECT_EQ(Get(*store, "key"), kNothing);
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.logEntries, 0u);
}

TEST_P(StoreTtlInPlaceTest, ASnapshotJudgesByTheSecondInWhichItWasTaken) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "value", 5), kStatusOk);
  Settle(*store);
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  std::unique_ptr<Snapshot> opened;
  ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
  const uint64_t then = clock_.Now();
  clock_.Advance(100);
  EXPECT_EQ(snapshot->Seconds(), then);
  EXPECT_EQ(opened->Seconds(), then);
  EXPECT_EQ(Get(*snapshot, "key"), "value");
  EXPECT_EQ(Get(*opened, "key"), "value");
  EXPECT_EQ(Walk(*snapshot).size(), 1u);
  EXPECT_EQ(Walk(*opened).size(), 1u);
  EXPECT_EQ(Get(*store, "key"), kNothing);
}

TEST_P(StoreTtlInPlaceTest, AnExpiredKeyIsNotDeletedOnceMore) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("a", "1", 5), kStatusOk);
  ASSERT_EQ(store->Put("b", "2"), kStatusOk);
  Settle(*store);
  clock_.Advance(6);
  StoreStats before;
  ASSERT_EQ(store->GetStats(&before), kStatusOk);
  ASSERT_EQ(store->DeleteRange(Range::All()), kStatusOk);
  StoreStats after;
  ASSERT_EQ(store->GetStats(&after), kStatusOk);
  EXPECT_EQ(after.logUsed - before.logUsed, 41u);  // one tombstone, for b
}

INSTANTIATE_TEST_SUITE_P(Places, StoreTtlInPlaceTest, testing::Values(Place::Log, Place::Block),
                         [](const testing::TestParamInfo<Place>& info) {
                           return info.param == Place::Log ? "InTheLog" : "InABlock";
                         });

TEST_F(StoreTtlTest, TheOlderFaceAndThisOneAgreeOnWhatIsAlive) {
  const std::unique_ptr<Store> store = Open();
  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_, {kLogSize, 0}, &opened), kStatusOk);
  const std::unique_ptr<LSDBImpl> older(opened);
  ASSERT_EQ(older->Insert(Key("older"), 5, "1", 1), kStatusOk);
  ASSERT_EQ(store->Put("newer", "2", 5), kStatusOk);
  for (int seconds = 0; seconds < 8; ++seconds, clock_.Advance(1)) {
    EXPECT_EQ(Get(*store, "older"), seconds <= 5 ? "1" : kNothing) << seconds;
    EXPECT_EQ(Get(*store, "newer"), seconds <= 5 ? "2" : kNothing) << seconds;
    const void* value = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(older->Get(Key("newer"), &value, &size), seconds <= 5 ? kStatusOk : kStatusExpired) << seconds;
    std::free(const_cast<void*>(value));
  }
}

TEST_F(StoreTtlTest, ABatchCarriesOneTimestampAlsoWhenItsClockGoesOn) {
  const std::unique_ptr<Store> store = Open();
  WriteBatch batch;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(batch.Put("key" + std::to_string(i), "v", 100), kStatusOk);
  clock_.OnReading([this](int) { clock_.Advance(1); });
  ASSERT_EQ(store->Write(batch), kStatusOk);
  ASSERT_EQ(store->Transact([](Transaction& transaction) {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(transaction.Put("t" + std::to_string(i), "v", 100), kStatusOk);
    return kStatusOk;
  }),
            kStatusOk);
  clock_.OnReading(nullptr);
  std::map<uint64_t, int> batchTimes;
  std::map<uint64_t, int> transactionTimes;
  std::unique_ptr<Cursor> cursor;
  ASSERT_EQ(Take(*store)->NewCursor(Range::All(), &cursor), kStatusOk);
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
    ++(cursor->Key()[0] == 't' ? transactionTimes : batchTimes)[cursor->Entry().timestamp];
    EXPECT_EQ(cursor->Entry().ttl, 100u);
    EXPECT_EQ(cursor->Entry().valueSize, 1u);
    EXPECT_FALSE(cursor->Entry().deleted);
  }
  EXPECT_EQ(batchTimes.size(), 1u);
  EXPECT_EQ(transactionTimes.size(), 1u);
  EXPECT_EQ(batchTimes.begin()->second, 20);
}

// Two fillings of the log in one and the same instant of a clock that stands still are told apart.
TEST_F(StoreTtlTest, FillingsOfOneInstantDoNotShowEachOthersRecords) {
  std::unique_ptr<Store> store = Open();
  for (int filling = 0; filling < 4; ++filling) {
    for (int i = 0; i < 20 - filling; ++i) {
      ASSERT_EQ(store->Put("key" + std::to_string(i), std::to_string(filling)), kStatusOk);
    }
    ASSERT_EQ(store->Flush(), kStatusOk);
    store.reset();
    store = Open();
  }
  EXPECT_EQ(Get(*store, "key0"), "3");
  EXPECT_EQ(Get(*store, "key19"), "0");
}

}  // namespace
}  // namespace Kestrun::Testing
