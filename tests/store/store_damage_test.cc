// Damage is told, and nothing is given up for it.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "kestrun/diagnostics.h"
#include "tests/store/store_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreDamageTest : public StoreTest {
 protected:
  StoreDamageTest() { SetDiagnosticHandler(&Note, &said_); }
  ~StoreDamageTest() override { SetDiagnosticHandler(nullptr, nullptr); }

  static void Note(void* context, std::string_view message) {
    static_cast<std::string*>(context)->append(message);
  }
  std::unique_ptr<Store> Open() {
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::Open(path_, Options(), &store), kStatusOk);
    return store;
  }
  std::vector<std::string> Blocks() const {
    std::vector<std::string> blocks;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      if (entry.path().extension() == ".blk_v5") blocks.push_back(entry.path().string());
    }
    return blocks;
  }
  std::string LogPath() const { return path_ + "/wal_v5"; }
  // Flips one bit in place: the file stays the same one.
  static void FlipBit(const std::string& path, size_t offset, int bit = 0) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    char byte = 0;
    file.seekg(static_cast<std::streamoff>(offset)).get(byte);
    file.seekp(static_cast<std::streamoff>(offset)).put(static_cast<char>(byte ^ (1 << bit)));
    ASSERT_TRUE(file.good());
  }
  // Goes on with a copy of the directory. What this process has replayed of a log it keeps in mind for as
  // long as it runs; of the copy it knows nothing.
  void GoOnWithACopy() {
    const std::string copy = path_ + "+";
    std::filesystem::copy(path_, copy);
    path_ = copy;
  }
  // One key in an old block, a newer version of it and another key in a new one.
  std::unique_ptr<Store> OpenWithTwoBlocks() {
    std::unique_ptr<Store> store = Open();
    EXPECT_EQ(store->Put("key", "old"), kStatusOk);
    EXPECT_EQ(store->Put("older", "1"), kStatusOk);
    EXPECT_EQ(store->Flush(), kStatusOk);
    oldBlock_ = Blocks().at(0);
    EXPECT_EQ(store->Put("key", "new"), kStatusOk);
    EXPECT_EQ(store->Put("newer", "2"), kStatusOk);
    EXPECT_EQ(store->Flush(), kStatusOk);
    for (const std::string& block : Blocks()) {
      if (block != oldBlock_) newBlock_ = block;
    }
    return store;
  }

  std::string path_ = StoreTest::path_;
  std::string said_;
  std::string oldBlock_;
  std::string newBlock_;
};

TEST_F(StoreDamageTest, AnyFlippedBitOfAValueInABlockIsTold) {
  const std::string value = "sixteen bytes...";
  {
    const std::unique_ptr<Store> store = Open();
    ASSERT_EQ(store->Put("key", value), kStatusOk);
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  const std::string block = Blocks().at(0);
  const size_t place = ReadFile(block).find(value);
  ASSERT_NE(place, std::string::npos);
  for (size_t byte = 0; byte < value.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      FlipBit(block, place + byte, bit);
      const std::unique_ptr<Store> store = Open();
      ASSERT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>") << byte << "." << bit;
      const std::unique_ptr<Snapshot> snapshot = Take(*store);
      ASSERT_EQ(Get(*snapshot, "key"), "<kStatusBlockCorrupt>");
      ASSERT_EQ(Walk(*snapshot), (Pairs{{"key", "<kStatusBlockCorrupt>"}}));
      FlipBit(block, place + byte, bit);
    }
  }
  EXPECT_EQ(Get(*Open(), "key"), value);
}

TEST_F(StoreDamageTest, AnyFlippedBitOfAValueInTheLogIsToldToWhoeverHasReplayedIt) {
  const std::string value = "sixteen bytes...";
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", value), kStatusOk);
  ASSERT_EQ(store->Put("next", "1"), kStatusOk);
  const size_t place = ReadFile(LogPath()).find(value);
  ASSERT_NE(place, std::string::npos);
  for (size_t byte = 0; byte < value.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      FlipBit(LogPath(), place + byte, bit);
      ASSERT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>") << byte << "." << bit;
      ASSERT_EQ(Get(*store, "next"), "1");
      FlipBit(LogPath(), place + byte, bit);
    }
  }
  EXPECT_EQ(Get(*store, "key"), value);
  // A flush does not make it sound.
  FlipBit(LogPath(), place);
  const uint32_t flushed = store->Flush();
  EXPECT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>") << flushed;
  if (flushed == kStatusOk) {
    EXPECT_EQ(store->Compact(), kStatusOk);
    EXPECT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>");
  }
  EXPECT_EQ(Get(*store, "next"), "1");
}

// Every byte of the records of the log, flipped: what is read is what was written, or nothing, or a status.
TEST_F(StoreDamageTest, NoFlippedBitOfTheLogShowsAValueThatNobodyWrote) {
  std::map<std::string, std::string> written;
  {
    const std::unique_ptr<Store> store = Open();
    for (int i = 0; i < 6; ++i) {
      const std::string key = "key" + std::to_string(i);
      ASSERT_EQ(store->Put(key, "value " + std::to_string(i)), kStatusOk);
      written[key] = "value " + std::to_string(i);
    }
  }
  const std::string log = ReadFile(LogPath());
  const size_t used = 128 + 6 * (40 + 4 + 7);
  for (size_t offset = 128; offset < used; ++offset) {
    const std::string copy = directory_.PathOf("copy" + std::to_string(offset));
    std::filesystem::copy(path_, copy);
    std::string damaged = log;
    damaged[offset] = static_cast<char>(damaged[offset] ^ (1 << offset % 8));
    WriteFile(copy + "/wal_v5", damaged);
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(copy, &snapshot), kStatusOk);
    std::unique_ptr<Store> store;
    ASSERT_EQ(Store::Open(copy, Options(), &store), kStatusOk);
    for (const auto& [key, value] : written) {
      const std::string found = Get(*store, key);
      ASSERT_TRUE(found == value || found == kNothing || found[0] == '<') << offset << ": " << found;
      ASSERT_EQ(Get(*snapshot, key), found) << offset;
    }
    const Pairs walked = Walk(*snapshot);
    ASSERT_EQ(walked.size(), (offset - 128) / 51) << offset;
    for (const auto& [key, value] : walked) ASSERT_EQ(written.at(key), value) << offset;
    // What comes next is found again by everybody.
    ASSERT_EQ(store->Put("after", "x"), kStatusOk);
    store.reset();
    ASSERT_EQ(Store::Open(copy, Options(), &store), kStatusOk);
    ASSERT_EQ(Get(*store, "after"), "x");
    for (const auto& [key, value] : walked) ASSERT_EQ(Get(*store, key), value) << offset;
  }
}

TEST_F(StoreDamageTest, TheEndOfALogThatCannotBeReadIsSavedBeforeAnythingIsAppended) {
  std::unique_ptr<Store> store = Open();
  for (const char* key : {"a", "b", "c"})
    ASSERT_EQ(store->Put(key, std::string("value of ") + key), kStatusOk);
  store.reset();
  const size_t second = 128 + 40 + 1 + 10;
  FlipBit(LogPath(), second + 40 + 3);
  const std::string damaged = ReadFile(LogPath());
  GoOnWithACopy();

  store = Open();
  EXPECT_EQ(Get(*store, "a"), "value of a");
  EXPECT_EQ(Get(*store, "c"), kNothing);
  EXPECT_TRUE(ReadFile(LogPath()) == damaged);
  EXPECT_FALSE(std::filesystem::exists(path_ + "/wal_v5.damaged-1"));
  EXPECT_EQ(said_, "") << "it is told when it is set aside";
  std::unique_ptr<Snapshot> opened;
  ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
  EXPECT_EQ(said_, "Log file " + LogPath() + " can be read up to byte " + std::to_string(second) + " of " +
                       std::to_string(second + 2 * 51) + "; the rest is damaged or was never written\n");
  opened.reset();
  ASSERT_EQ(store->Put("d", "value of d"), kStatusOk);
  EXPECT_EQ(ReadFile(path_ + "/wal_v5.damaged-1"), damaged.substr(second, 2 * 51));
  EXPECT_NE(said_.find("wal_v5.damaged-1"), std::string::npos) << said_;
  EXPECT_EQ(Get(*store, "a"), "value of a");
  EXPECT_EQ(Get(*store, "d"), "value of d");
  store.reset();
  GoOnWithACopy();
  store = Open();
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"a", "value of a"}, {"d", "value of d"}}));

  // Damage once more, in the first record: another file.
  store.reset();
  FlipBit(LogPath(), 128 + 40);
  GoOnWithACopy();
  store = Open();
  ASSERT_EQ(store->Put("e", "value of e"), kStatusOk);
  EXPECT_TRUE(std::filesystem::exists(path_ + "/wal_v5.damaged-2"));
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"a", "value of a"}, {"e", "value of e"}}));
}

// What a loss of power leaves of a log that was never synced: nothing is saved of zeros.
TEST_F(StoreDamageTest, ZerosAtTheEndOfTheLogAreNotSaved) {
  std::unique_ptr<Store> store = Open();
  for (const char* key : {"a", "b"}) ASSERT_EQ(store->Put(key, "x"), kStatusOk);
  store.reset();
  std::string log = ReadFile(LogPath());
  std::fill(log.begin() + 128 + 42, log.end(), '\0');
  WriteFile(LogPath(), log);
  GoOnWithACopy();
  store = Open();
  ASSERT_EQ(store->Put("c", "x"), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(path_ + "/wal_v5.damaged-1"));
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"a", "x"}, {"c", "x"}}));
}

TEST_F(StoreDamageTest, ALogThatLostItsFirstRecordTakesWritesAgain) {
  for (const bool flush : {false, true}) {
    std::unique_ptr<Store> store = Open();
    ASSERT_EQ(store->Clear(), kStatusOk);
    ASSERT_EQ(store->Put("a", "x"), kStatusOk);
    store.reset();
    FlipBit(LogPath(), 128 + 2);
    GoOnWithACopy();
    store = Open();
    if (flush) {
      ASSERT_EQ(store->Flush(), kStatusOk);
    }
    ASSERT_EQ(store->Put("b", "x"), kStatusOk);
    EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"b", "x"}}));
  }
}

TEST_F(StoreDamageTest, ABlockWhoseFileIsGoneIsToldInsteadOfAnOlderValue) {
  OpenWithTwoBlocks().reset();
  ASSERT_TRUE(std::filesystem::remove(newBlock_));
  const std::unique_ptr<Store> store = Open();
  EXPECT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>");
  EXPECT_EQ(Get(*store, "newer"), "<kStatusBlockCorrupt>");
  bool alive = true;
  EXPECT_EQ(store->Contains("key", &alive), kStatusBlockCorrupt);
  EXPECT_NE(said_.find(newBlock_), std::string::npos) << said_;
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  EXPECT_EQ(Get(*snapshot, "key"), "<kStatusBlockCorrupt>");
  EXPECT_EQ(Walk(*snapshot), (Pairs{{"<kStatusBlockCorrupt>", ""}}));
  EXPECT_EQ(Walk(*snapshot, Range::All(), false), (Pairs{{"<kStatusBlockCorrupt>", ""}}));
  std::unique_ptr<Snapshot> opened;
  ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
  EXPECT_EQ(Get(*opened, "key"), "<kStatusBlockCorrupt>");
  EXPECT_EQ(store->Compact(), kStatusBlockCorrupt);
  EXPECT_EQ(store->DeleteRange(Range::All()), kStatusBlockCorrupt);
  EXPECT_EQ(store->Checkpoint(directory_.PathOf("copy")), kStatusBlockCorrupt);
  EXPECT_FALSE(std::filesystem::exists(directory_.PathOf("copy")));
  EXPECT_TRUE(std::filesystem::exists(oldBlock_));
  // Writing goes on, and what is written is found.
  EXPECT_EQ(store->Put("key", "newest"), kStatusOk);
  EXPECT_EQ(Get(*store, "key"), "newest");
  EXPECT_EQ(store->Flush(), kStatusOk);
  EXPECT_EQ(Get(*store, "key"), "newest");
  EXPECT_EQ(Get(*store, "newer"), "<kStatusBlockCorrupt>");
}

TEST_F(StoreDamageTest, ADamagedBlockIsKeptAndTold) {
  OpenWithTwoBlocks().reset();
  const std::string whole = ReadFile(newBlock_);
  for (const size_t length : {size_t{0}, size_t{10}, whole.size() / 2, whole.size() - 8}) {
    WriteFile(newBlock_, whole.substr(0, length));
    const std::unique_ptr<Store> store = Open();
    EXPECT_EQ(Get(*store, "key"), "<kStatusBlockCorrupt>") << length;
    EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"<kStatusBlockCorrupt>", ""}})) << length;
    EXPECT_EQ(store->Compact(), kStatusBlockCorrupt) << length;
    EXPECT_EQ(ReadFile(newBlock_), whole.substr(0, length));
    EXPECT_TRUE(std::filesystem::exists(oldBlock_));
  }
  WriteFile(newBlock_, whole);
  EXPECT_EQ(Get(*Open(), "key"), "new");
}

// Any flipped bit of a block: the values that were written under a key, or a status. Nothing proves the table
// of keys by itself: a key that is damaged there is not found, and a walk tells it.
TEST_F(StoreDamageTest, NoFlippedBitOfABlockShowsAValueThatNobodyWrote) {
  OpenWithTwoBlocks().reset();
  const std::string whole = ReadFile(newBlock_);
  const size_t keys = whole.find("keynewer");
  ASSERT_NE(keys, std::string::npos);
  int told = 0;
  for (size_t offset = 0; offset < whole.size(); ++offset) {
    if (whole[offset] == 0 && offset % 64 != 0) continue;  // of the padding a few places
    std::string damaged = whole;
    damaged[offset] = static_cast<char>(damaged[offset] ^ (1 << offset % 8));
    WriteFile(newBlock_, damaged);
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
    const bool isKey = offset >= keys && offset < keys + 8;
    const auto isRight = [&](const std::string& found, const std::string& right, const std::string& older) {
      return found == right || found.substr(0, 8) == "<kStatus" || (isKey && found == older);
    };
    const std::string key = Get(*snapshot, "key");
    const std::string newer = Get(*snapshot, "newer");
    ASSERT_TRUE(isRight(key, "new", "old")) << offset << " of " << whole.size() << ": " << key;
    ASSERT_TRUE(isRight(newer, "2", kNothing)) << offset << ": " << newer;
    if (key != "new" || newer != "2") ++told;
    const Pairs pairs = Walk(*snapshot);
    const bool isTold = std::any_of(pairs.begin(), pairs.end(), [](const auto& pair) {
      return pair.first == "<kStatusBlockCorrupt>" || pair.second == "<kStatusBlockCorrupt>";
    });
    if (isKey) {
      ASSERT_TRUE(isTold) << offset;
    }
    if (!isTold) {
      ASSERT_EQ(pairs, (Pairs{{"key", "new"}, {"newer", "2"}, {"older", "1"}})) << offset;
    }
  }
  EXPECT_GT(told, 60);
  WriteFile(newBlock_, whole);
}

TEST_F(StoreDamageTest, ADamagedListIsToldAndLeftAlone) {
  OpenWithTwoBlocks().reset();
  const std::string manifest = path_ + "/manifest_v5";
  const std::string whole = ReadFile(manifest);
  FlipBit(manifest, 128 + 20);
  const std::string damaged = ReadFile(manifest);
  std::unique_ptr<Store> store;
  EXPECT_EQ(Store::Open(path_, Options(), &store), kStatusManifestUnreadable);
  std::unique_ptr<Snapshot> snapshot;
  EXPECT_EQ(Snapshot::Open(path_, &snapshot), kStatusManifestUnreadable);
  EXPECT_EQ(ReadFile(manifest), damaged);
  EXPECT_EQ(Blocks().size(), 2u);
  WriteFile(manifest, whole);
  EXPECT_EQ(Get(*Open(), "key"), "new");
}

TEST_F(StoreDamageTest, ALogHeaderThatIsDamagedWhileTheStoreIsOpenIsTold) {
  const std::unique_ptr<Store> store = Open();
  ASSERT_EQ(store->Put("key", "value"), kStatusOk);
  FlipBit(LogPath(), 13);
  EXPECT_EQ(Get(*store, "key"), "<kStatusWalChecksum>");
  EXPECT_EQ(store->Put("key", "x"), kStatusWalChecksum);
  EXPECT_EQ(store->Flush(), kStatusWalChecksum);
  EXPECT_EQ(store->Clear(), kStatusWalChecksum);
  std::unique_ptr<Snapshot> snapshot;
  EXPECT_EQ(store->TakeSnapshot(&snapshot), kStatusWalChecksum);
  EXPECT_EQ(store->Transact([](Transaction& transaction) { return transaction.Put("a", "1"); }),
            kStatusWalChecksum);
  FlipBit(LogPath(), 13);
  EXPECT_EQ(Get(*store, "key"), "value");
}

}  // namespace
}  // namespace Kestrun::Testing
