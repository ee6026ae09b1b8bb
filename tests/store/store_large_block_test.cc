// Blocks that are too large to be loaded at once, or at all.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "kestrun/write_batch.h"
#include "tests/store/store_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreLargeBlockTest : public StoreTest {
 protected:
  static std::string KeyOf(uint32_t number) {
    char text[16];
    std::snprintf(text, sizeof(text), "key%08u", number);
    return text;
  }
  static std::string ValueOf(uint32_t number) { return "value of " + std::to_string(number * 7); }

  std::unique_ptr<Store> Open() {
    StoreOptions options;
    options.logSize = 64 << 20;
    options.autoCompact = false;
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::Open(path_, options, &store), kStatusOk);
    return store;
  }
  // Every second number from `first` on below `end`.
  static void Fill(Store& store, uint32_t first, uint32_t end) {
    WriteBatch batch;
    for (uint32_t i = first; i < end; i += 2) {
      ASSERT_EQ(batch.Put(KeyOf(i), ValueOf(i)), kStatusOk);
      if (batch.Count() == 1000 || i + 2 >= end) {
        ASSERT_EQ(store.Write(batch), kStatusOk);
        batch.Clear();
      }
    }
  }
  static void ExpectValue(uint32_t status, const std::optional<std::string>& value, uint32_t number) {
    ASSERT_EQ(status, kStatusOk);
    ASSERT_EQ(value.has_value(), number % 2 == 0) << number;
    if (value.has_value()) {
      ASSERT_EQ(*value, ValueOf(number));
    }
  }
  // Walks the even numbers in [first, end), forward and backward.
  static void ExpectWalks(const Snapshot& snapshot, uint32_t first, uint32_t end) {
    std::unique_ptr<Cursor> cursor;
    ASSERT_EQ(snapshot.NewCursor({KeyOf(first), KeyOf(end)}, &cursor), kStatusOk);
    uint32_t number = first + first % 2;
    for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next(), number += 2) {
      std::string_view value;
      ASSERT_EQ(cursor->Key(), KeyOf(number));
      ASSERT_EQ(cursor->Value(&value), kStatusOk);
      ASSERT_EQ(value, ValueOf(number));
    }
    ASSERT_EQ(cursor->Status(), kStatusOk);
    ASSERT_EQ(number, end + end % 2);
    for (cursor->SeekToLast(); cursor->Valid(); cursor->Prev()) {
      number -= 2;
      std::string_view value;
      ASSERT_EQ(cursor->Key(), KeyOf(number));
      ASSERT_EQ(cursor->Value(&value), kStatusOk);
      ASSERT_EQ(value, ValueOf(number));
    }
    ASSERT_EQ(cursor->Status(), kStatusOk);
    ASSERT_EQ(number, first + first % 2);
  }
  std::string OnlyBlock() const {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      if (entry.path().extension() == ".blk_v5") found = entry.path().string();
    }
    return found;
  }

  std::mt19937_64 random_ = TestRandom(0);
};

// The first reads of a store look into the file, and go on to load the block where that says nothing.
TEST_F(StoreLargeBlockTest, FirstReadsFindWhatIsThereAndWhatIsNot) {
  constexpr uint32_t kEnd = 20000;
  {
    const std::unique_ptr<Store> store = Open();
    Fill(*store, 0, kEnd);
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  for (int round = 0; round < 40 && !HasFatalFailure(); ++round) {
    const std::unique_ptr<Store> store = Open();
    for (int i = 0; i < 20; ++i) {
      const auto number = static_cast<uint32_t>(random_() % kEnd);
      std::optional<std::string> value;
      const uint32_t status = store->Get(KeyOf(number), &value);
      ExpectValue(status, value, number);
    }
    StoreStats stats;
    ASSERT_EQ(store->GetStats(&stats), kStatusOk);
    EXPECT_LE(stats.blockLoads, 2U);
  }
}

TEST_F(StoreLargeBlockTest, ReadingAStoreThatIsNotOpenNeedsNoIndexOfALargeBlock) {
  constexpr uint32_t kEnd = 300000;  // 150,000 entries
  {
    const std::unique_ptr<Store> store = Open();
    Fill(*store, 0, kEnd);
    ASSERT_EQ(store->Flush(), kStatusOk);
    ASSERT_EQ(store->Put(KeyOf(10), ValueOf(10)), kStatusOk);
  }
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
  for (int i = 0; i < 500 && !HasFatalFailure(); ++i) {
    const auto number = static_cast<uint32_t>(random_() % kEnd);
    std::optional<std::string> value;
    const uint32_t status = snapshot->Get(KeyOf(number), &value);
    ExpectValue(status, value, number);
  }
  ExpectWalks(*snapshot, 0, kEnd);
  for (int i = 0; i < 20 && !HasFatalFailure(); ++i) {
    const auto first = static_cast<uint32_t>(random_() % (kEnd - 2000));
    ExpectWalks(*snapshot, first, first + 1 + static_cast<uint32_t>(random_() % 2000));
  }
}

TEST_F(StoreLargeBlockTest, DamageInTheMiddleEndsAWalkWithAStatus) {
  constexpr uint32_t kEnd = 300000;
  {
    const std::unique_ptr<Store> store = Open();
    Fill(*store, 0, kEnd);
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  const std::string block = OnlyBlock();
  const auto size = static_cast<std::streamoff>(std::filesystem::file_size(block));
  {
    std::fstream file(block, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(size - 50000 * 48 + 10).put('\x55');  // in the padding of an entry, which its checksum covers
    ASSERT_TRUE(file.good());
  }
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
  std::optional<std::string> value;
  EXPECT_EQ(snapshot->Get(KeyOf(200000), &value), kStatusBlockCorrupt);
  EXPECT_EQ(snapshot->Get(KeyOf(2), &value), kStatusOk);
  EXPECT_EQ(value, ValueOf(2));
  std::unique_ptr<Cursor> cursor;
  ASSERT_EQ(snapshot->NewCursor({}, &cursor), kStatusOk);
  size_t forward = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) ++forward;
  EXPECT_EQ(cursor->Status(), kStatusBlockCorrupt);
  size_t backward = 0;
  for (cursor->SeekToLast(); cursor->Valid(); cursor->Prev()) ++backward;
  EXPECT_EQ(cursor->Status(), kStatusBlockCorrupt);
  EXPECT_GT(forward, 90000U);
  EXPECT_GT(backward, 40000U);
  EXPECT_LT(forward + backward, 150000U);

  const std::unique_ptr<Store> store = Open();
  EXPECT_EQ(store->Get(KeyOf(200000), &value), kStatusBlockCorrupt);
}

// More entries than a store indexes: merged in little memory, and read through a table.
TEST_F(StoreLargeBlockTest, BlockOfMoreThanAMillionEntries) {
  constexpr uint32_t kEnd = 2300000;
  const std::unique_ptr<Store> store = Open();
  Fill(*store, 0, kEnd / 2);
  ASSERT_EQ(store->Flush(), kStatusOk);
  Fill(*store, kEnd / 2, kEnd);
  ASSERT_EQ(store->Put(KeyOf(1), "goes"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Delete(KeyOf(1)), kStatusOk);
  ASSERT_EQ(store->Compact(), kStatusOk);
  for (const std::unique_ptr<Store>& reader : {Open(), Open()}) {
    for (int i = 0; i < 2000 && !HasFatalFailure(); ++i) {
      const auto number = static_cast<uint32_t>(random_() % kEnd);
      std::optional<std::string> value;
      const uint32_t status = reader->Get(KeyOf(number), &value);
      ExpectValue(status, value, number);
    }
  }
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(store->TakeSnapshot(&snapshot), kStatusOk);
  ExpectWalks(*snapshot, 0, kEnd);
  EXPECT_EQ(store->Compact(), kStatusOk);  // looks through the table for what it could drop
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.blocks, 1U);
  EXPECT_EQ(stats.compactions, 1U);
}

}  // namespace
}  // namespace Kestrun::Testing
