// Batches: all or nothing, for whoever looks.
#include <unistd.h>

#include <cstdlib>

#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

using StoreBatchTest = StoreTest;

TEST_F(StoreBatchTest, TheLastOperationOnAKeyWins) {
  const std::unique_ptr<Store> store = Open();
  WriteBatch batch;
  ASSERT_EQ(batch.Put("a", "1"), kStatusOk);
  ASSERT_EQ(batch.Delete("a"), kStatusOk);
  ASSERT_EQ(batch.Put("b", "1"), kStatusOk);
  ASSERT_EQ(batch.Put("b", "2"), kStatusOk);
  ASSERT_EQ(batch.Delete("c"), kStatusOk);
  ASSERT_EQ(batch.Put("c", "3"), kStatusOk);
  EXPECT_EQ(batch.Count(), 6u);
  EXPECT_EQ(batch.ByteSize(), 6 * 41u + 4);
  ASSERT_EQ(store->Write(batch), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"b", "2"}, {"c", "3"}}));
  EXPECT_EQ(Get(*store, "a"), kNothing);
  ASSERT_EQ(store->Flush(), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"b", "2"}, {"c", "3"}}));
}

TEST_F(StoreBatchTest, AnOperationThatCannotBeAddsNothing) {
  WriteBatch batch;
  ASSERT_EQ(batch.Put("key", "value"), kStatusOk);
  const size_t size = batch.ByteSize();
  EXPECT_EQ(batch.Put("", "x"), kStatusInvalid);
  EXPECT_EQ(batch.Put("\xFF", "x"), kStatusInvalid);
  EXPECT_EQ(batch.Put("key", "x", 0), kStatusInvalid);
  EXPECT_EQ(batch.Put(std::string(65536, 'k'), "x"), kStatusInvalid);
  EXPECT_EQ(batch.Delete(""), kStatusInvalid);
  EXPECT_EQ(batch.Delete("\xFFx"), kStatusInvalid);
  EXPECT_EQ(batch.Count(), 1u);
  EXPECT_EQ(batch.ByteSize(), size);
  EXPECT_EQ(batch.Put(std::string(65535, 'k'), std::string_view()), kStatusOk);
  batch.Clear();
  EXPECT_EQ(batch.Count(), 0u);
  EXPECT_EQ(batch.ByteSize(), 0u);
}

TEST_F(StoreBatchTest, AnEmptyBatchChangesNoByte) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "value"), kStatusOk);
  const std::string before = ReadFile(path_ + "/wal_v5");
  EXPECT_EQ(store->Write(WriteBatch()), kStatusOk);
  EXPECT_EQ(store->Transact([](Transaction&) { return kStatusOk; }), kStatusOk);
  EXPECT_EQ(store->DeleteRange(Range::Prefix("nothing")), kStatusOk);
  EXPECT_TRUE(ReadFile(path_ + "/wal_v5") == before);
}

TEST_F(StoreBatchTest, BatchesAreCopiedMovedAndWrittenAgain) {
  const std::unique_ptr<Store> store = Open();
  WriteBatch batch;
  ASSERT_EQ(batch.Put("a", "1"), kStatusOk);
  WriteBatch copy = batch;
  ASSERT_EQ(copy.Put("b", "2"), kStatusOk);
  EXPECT_EQ(batch.Count(), 1u);
  const WriteBatch moved = std::move(copy);
  ASSERT_EQ(store->Write(moved), kStatusOk);
  ASSERT_EQ(store->Clear(), kStatusOk);
  ASSERT_EQ(store->Write(moved), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"a", "1"}, {"b", "2"}}));
}

TEST_F(StoreBatchTest, ABatchThatJustFitsIsWrittenAndOneByteMoreIsRefusedWithoutAFlush) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("there", "before"), kStatusOk);
  WriteBatch batch;
  ASSERT_EQ(batch.Put("a", "1"), kStatusOk);
  ASSERT_EQ(batch.Put("b", std::string(kLogSize - 128 - batch.ByteSize() - 41 + 1, 'x')), kStatusOk);
  EXPECT_EQ(batch.ByteSize(), kLogSize - 128 + 1);
  EXPECT_EQ(store->Write(batch), kStatusWalFull);
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 0u);
  EXPECT_EQ(stats.blocks, 0u);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"there", "before"}}));

  batch.Clear();
  ASSERT_EQ(batch.Put("a", "1"), kStatusOk);
  const std::string longest(kLogSize - 128 - batch.ByteSize() - 41, 'x');
  ASSERT_EQ(batch.Put("b", longest), kStatusOk);
  EXPECT_EQ(store->Write(batch), kStatusOk);
  EXPECT_EQ(Get(*store, "b"), longest);
  EXPECT_EQ(Get(*store, "there"), "before");
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 1u);
  EXPECT_EQ(stats.logUsed, kLogSize);
  // The full log is read by others.
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
  EXPECT_EQ(Get(*snapshot, "b"), longest);
  EXPECT_EQ(store->Put("c", "3"), kStatusOk);
  EXPECT_EQ(Get(*store, "b"), longest);
}

TEST_F(StoreBatchTest, TransactionsThatCannotFitWriteNothing) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "before"), kStatusOk);
  EXPECT_EQ(store->Transact([](Transaction& transaction) {
    EXPECT_EQ(transaction.Put("key", "after"), kStatusOk);
    return transaction.Put("large", std::string(kLogSize, 'x'));
  }),
            kStatusWalFull);
  EXPECT_EQ(Get(*store, "key"), "before");
}

// The bytes that a batch leaves are those of the same single calls.
TEST_F(StoreBatchTest, TheLogHoldsWhatSingleCallsWouldHaveWritten) {
  const std::string other = directory_.PathOf("single");
  {
    const std::unique_ptr<Store> store = Open();
    WriteBatch batch;
    ASSERT_EQ(batch.Put("one", "1", 77), kStatusOk);
    ASSERT_EQ(batch.Delete("two"), kStatusOk);
    ASSERT_EQ(batch.Put("three", ""), kStatusOk);
    ASSERT_EQ(store->Write(batch), kStatusOk);
    std::unique_ptr<Store> single;
    ASSERT_EQ(Store::Open(other, Options(), &single), kStatusOk);
    ASSERT_EQ(single->Put("one", "1", 77), kStatusOk);
    ASSERT_EQ(single->Delete("two"), kStatusOk);
    ASSERT_EQ(single->Put("three", ""), kStatusOk);
  }
  const auto read = [](const std::string& path) {
    std::string bytes = ReadFile(path + "/wal_v5").substr(0, 128 + 3 * 40 + 12);
    // The epoch, the second and the sum over them differ.
    for (size_t record : {size_t{128}, size_t{128 + 44}, size_t{128 + 44 + 43}}) {
      for (size_t i : {9, 10, 11, 12, 16, 17, 18, 19, 36, 37, 38, 39}) bytes[record + i] = 0;
    }
    return bytes;
  };
  EXPECT_EQ(ToHex(read(path_)), ToHex(read(other)));
}

// A writer replaces all keys at once, over and over;
// whoever looks sees one and the same number under all of them.
class StoreBatchProcessesTest : public StoreTest {
 protected:
  static constexpr int kKeys = 8;

  static std::string KeyOf(int i) { return "k" + std::to_string(i); }
  static uint32_t WriteNumber(Store& store, int number) {
    WriteBatch batch;
    for (int i = 0; i < kKeys; ++i) EXPECT_EQ(batch.Put(KeyOf(i), std::to_string(number)), kStatusOk);
    return store.Write(batch);
  }
  int WriteNumbers(ChildLink& parent, int end) {
    const std::unique_ptr<Store> store = Open();
    parent.Signal();
    for (int number = 1; number <= end; ++number) {
      if (WriteNumber(*store, number) != kStatusOk) return 1;
    }
    return 0;
  }
};

TEST_F(StoreBatchProcessesTest, SnapshotsOfOtherProcessesSeeAllOfABatchOrNothing) {
  ASSERT_EQ(WriteNumber(*Open(), 0), kStatusOk);
  ChildProcess writer([&](ChildLink& parent) { return WriteNumbers(parent, 100000000); });
  ASSERT_TRUE(writer.Await());
  const std::unique_ptr<Store> store = Open();
  const uint64_t rounds = TestSize(100, 5000);
  for (uint64_t round = 0; round < rounds; ++round) {
    std::unique_ptr<Snapshot> read;
    ASSERT_EQ(Snapshot::Open(path_, &read), kStatusOk);
    for (const Pairs& pairs : {Walk(*Take(*store)), Walk(*read)}) {
      ASSERT_EQ(pairs.size(), static_cast<size_t>(kKeys));
      for (const auto& [key, value] : pairs) ASSERT_EQ(value, pairs[0].second);
    }
  }
  writer.Kill();
}

// Each call of the older face sees the state of its own moment: the numbers never go back.
TEST_F(StoreBatchProcessesTest, TheOlderFaceSeesAllOfABatchOrNothing) {
  ASSERT_EQ(WriteNumber(*Open(), 0), kStatusOk);
  const CapturedStdout quiet;
  LSDBImpl* opened = nullptr;
  ASSERT_EQ(LSDBImpl::Open(path_, {kLogSize, 0}, &opened), kStatusOk);
  const std::unique_ptr<LSDBImpl> older(opened);
  const int end = static_cast<int>(TestSize(2000, 50000));
  ChildProcess writer([&](ChildLink& parent) { return WriteNumbers(parent, end); });
  ASSERT_TRUE(writer.Await());
  for (int last = 0, i = 0; last < end; i = (i + 1) % kKeys) {
    const void* value = nullptr;
    unsigned int size = 0;
    const uint32_t status = older->Get(Key(KeyOf(i)), &value, &size);
    if (status == kStatusLockFailed) continue;
    ASSERT_EQ(status, kStatusOk);
    const int number = std::atoi(std::string(static_cast<const char*>(value), size).c_str());
    std::free(const_cast<void*>(value));
    ASSERT_GE(number, last);
    last = number;
  }
  EXPECT_EQ(writer.Wait(), 0);
}

}  // namespace
}  // namespace Kestrun::Testing
