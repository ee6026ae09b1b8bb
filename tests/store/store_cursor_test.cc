// Cursors: every seek, both directions, ranges, and a walk at random beside a map.
#include <filesystem>

#include "tests/store/store_fixture.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreCursorTest : public StoreTest {
 protected:
  static std::unique_ptr<Cursor> NewCursor(const Snapshot& snapshot, const Range& range = Range::All()) {
    std::unique_ptr<Cursor> cursor;
    EXPECT_EQ(snapshot.NewCursor(range, &cursor), kStatusOk);
    return cursor;
  }
  // Where the cursor stands: "key=value", or the word for nowhere.
  static std::string Here(Cursor& cursor) {
    std::string_view value = "untouched";
    const uint32_t status = cursor.Value(&value);
    if (!cursor.Valid()) {
      EXPECT_EQ(status, kStatusInvalid);
      EXPECT_EQ(value, "untouched");
      EXPECT_EQ(cursor.Key(), "");
      EXPECT_EQ(cursor.Entry().valueSize, 0u);
      EXPECT_EQ(cursor.Entry().timestamp, 0u);
      EXPECT_EQ(cursor.Entry().ttl, 0u);
      return cursor.Status() == kStatusOk ? kNothing : StatusWord(cursor.Status());
    }
    EXPECT_EQ(cursor.Status(), kStatusOk);
    if (status != kStatusOk) return std::string(cursor.Key()) + "=" + StatusWord(status);
    EXPECT_EQ(cursor.Entry().valueSize, value.size());
    return std::string(cursor.Key()) + "=" + std::string(value);
  }
  std::unique_ptr<Store> OpenWith(const std::vector<std::string>& keys) {
    std::unique_ptr<Store> store = Open();
    for (const std::string& key : keys) EXPECT_EQ(store->Put(key, key), kStatusOk);
    return store;
  }
};

TEST_F(StoreCursorTest, StandsNowhereBeforeTheFirstSeekAndPastBothEnds) {
  const std::unique_ptr<Store> store = OpenWith({"b", "d"});
  const std::unique_ptr<Cursor> cursor = NewCursor(*Take(*store));
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->Next();
  cursor->Prev();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->SeekToFirst();
  EXPECT_EQ(Here(*cursor), "b=b");
  cursor->Prev();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->Next();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->SeekToLast();
  EXPECT_EQ(Here(*cursor), "d=d");
  cursor->Next();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->Prev();
  EXPECT_EQ(Here(*cursor), kNothing);
  EXPECT_EQ(cursor->Value(nullptr), kStatusInvalid);
}

TEST_F(StoreCursorTest, SeeksFindTheNeighboursOfEveryKeyWhereverTheyStand) {
  const std::unique_ptr<Store> store = Open();
  // Of b, d, f, h each stands somewhere else.
  ASSERT_EQ(store->Put("b", "b"), kStatusOk);
  ASSERT_EQ(store->Put("f", "old"), kStatusOk);
  ASSERT_EQ(store->Put("e", "e"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("f", "f"), kStatusOk);
  ASSERT_EQ(store->Put("d", "d"), kStatusOk);
  ASSERT_EQ(store->Delete("e"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("h", "h"), kStatusOk);
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  const struct {
    const char* key;
    const char* from;   // Seek
    const char* until;  // SeekForPrev
  } rows[] = {{"", "b=b", kNothing}, {"a", "b=b", kNothing}, {"b", "b=b", "b=b"},      {"c", "d=d", "b=b"},
              {"d", "d=d", "d=d"},   {"e", "f=f", "d=d"},    {"f", "f=f", "f=f"},      {"g", "h=h", "f=f"},
              {"h", "h=h", "h=h"},   {"i", kNothing, "h=h"}, {"\xFF", kNothing, "h=h"}};
  const std::unique_ptr<Cursor> cursor = NewCursor(*snapshot);
  for (const auto& row : rows) {
    cursor->Seek(row.key);
    EXPECT_EQ(Here(*cursor), row.from) << row.key;
    cursor->SeekForPrev(row.key);
    EXPECT_EQ(Here(*cursor), row.until) << row.key;
  }
  // Within [c, h).
  const struct {
    const char* key;
    const char* from;
    const char* until;
  } bounded[] = {{"", "d=d", kNothing},  {"b", "d=d", kNothing}, {"c", "d=d", kNothing}, {"d", "d=d", "d=d"},
                 {"g", kNothing, "f=f"}, {"h", kNothing, "f=f"}, {"i", kNothing, "f=f"}};
  const std::unique_ptr<Cursor> within = NewCursor(*snapshot, {"c", "h"});
  for (const auto& row : bounded) {
    within->Seek(row.key);
    EXPECT_EQ(Here(*within), row.from) << row.key;
    within->SeekForPrev(row.key);
    EXPECT_EQ(Here(*within), row.until) << row.key;
  }
  within->SeekToFirst();
  EXPECT_EQ(Here(*within), "d=d");
  within->SeekToLast();
  EXPECT_EQ(Here(*within), "f=f");
}

TEST_F(StoreCursorTest, RangesAreHalfOpenAndMayBeEmpty) {
  const std::unique_ptr<Store> store = OpenWith({"a", "b", "ba", "bb", "c"});
  const std::string high = std::string("b") + '\xFF';
  ASSERT_EQ(store->Put(high, "high"), kStatusOk);
  const auto keys = [&](const Range& range) {
    const std::unique_ptr<Snapshot> snapshot = Take(*store);
    std::string text;
    for (const auto& [key, value] : Walk(*snapshot, range)) text += (key == high ? "B" : key) + " ";
    Pairs backward = Walk(*snapshot, range, false);
    std::reverse(backward.begin(), backward.end());
    EXPECT_EQ(backward, Walk(*snapshot, range));
    return text;
  };
  for (int flushed = 0; flushed < 2; ++flushed) {
    EXPECT_EQ(keys(Range::All()), "a b ba bb B c ");
    EXPECT_EQ(keys(Range::Prefix("")), "a b ba bb B c ");
    EXPECT_EQ(keys(Range::Prefix("b")), "b ba bb B ");
    EXPECT_EQ(keys(Range::Prefix(high)), "B ");
    EXPECT_EQ(keys(Range::Prefix("\xFF\xFF")), "");
    EXPECT_EQ(keys({"b", "bb"}), "b ba ");
    EXPECT_EQ(keys({"b", "b"}), "");
    EXPECT_EQ(keys({"c", "b"}), "");
    EXPECT_EQ(keys({"bb", ""}), "bb B c ");
    EXPECT_EQ(keys({"", "b"}), "a ");
    EXPECT_EQ(keys({std::string(70000, 'b'), std::string(70000, 'c')}), "B c ");
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
}

TEST_F(StoreCursorTest, AnEmptySnapshotHasNothingToStandOn) {
  const std::unique_ptr<Store> store = Open();
  const std::unique_ptr<Cursor> cursor = NewCursor(*Take(*store));
  cursor->SeekToFirst();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->SeekToLast();
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->Seek("a");
  EXPECT_EQ(Here(*cursor), kNothing);
  cursor->SeekForPrev("a");
  EXPECT_EQ(Here(*cursor), kNothing);
}

TEST_F(StoreCursorTest, OutlivesItsSnapshotAndItsStore) {
  std::unique_ptr<Store> store = OpenWith({"a", "b"});
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("c", "c"), kStatusOk);
  const std::unique_ptr<Cursor> cursor = NewCursor(*Take(*store));
  cursor->SeekToFirst();
  ASSERT_EQ(store->Clear(), kStatusOk);
  ASSERT_EQ(store->Put("b", "new"), kStatusOk);
  store.reset();
  std::filesystem::remove_all(path_);
  EXPECT_EQ(Here(*cursor), "a=a");
  cursor->Next();
  EXPECT_EQ(Here(*cursor), "b=b");
  cursor->Next();
  EXPECT_EQ(Here(*cursor), "c=c");
  cursor->Seek("b");
  EXPECT_EQ(Here(*cursor), "b=b");
}

TEST_F(StoreCursorTest, ADamagedValueIsToldAndTheWalkGoesOn) {
  std::unique_ptr<Store> store = Open();
  for (const char* key : {"a", "b", "c"})
    ASSERT_EQ(store->Put(key, std::string("value of ") + key), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  store.reset();
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    if (entry.path().extension() != ".blk_v5") continue;
    std::string bytes = ReadFile(entry.path().string());
    const size_t place = bytes.find("value of b");
    ASSERT_NE(place, std::string::npos);
    bytes[place] = 'V';
    WriteFile(entry.path().string(), bytes);
  }
  store = Open();
  const std::unique_ptr<Cursor> cursor = NewCursor(*Take(*store));
  cursor->SeekToFirst();
  EXPECT_EQ(Here(*cursor), "a=value of a");
  cursor->Next();
  EXPECT_EQ(Here(*cursor), "b=<kStatusBlockCorrupt>");
  EXPECT_EQ(Here(*cursor), "b=<kStatusBlockCorrupt>");
  cursor->Next();
  EXPECT_EQ(Here(*cursor), "c=value of c");
  cursor->Prev();
  EXPECT_EQ(Here(*cursor), "b=<kStatusBlockCorrupt>");
  cursor->Prev();
  EXPECT_EQ(Here(*cursor), "a=value of a");
}

// Values from a few bytes to some that are longer than what is read ahead, walked in both directions.
TEST_F(StoreCursorTest, ValuesOfAllSizesAreReadAheadInBothDirections) {
  const std::unique_ptr<Store> store = Open(Options(8 << 20));
  Pairs expected;
  std::mt19937_64 random = TestRandom(21);
  for (int i = 1000; i < 1060; ++i) {
    const size_t sizes[] = {0, 1, 100, 5000, 70000, 300000};
    std::string value(sizes[random() % 6] + random() % 50, static_cast<char>('a' + i % 26));
    ASSERT_EQ(store->Put(std::to_string(i), value), kStatusOk);
    expected.emplace_back(std::to_string(i), std::move(value));
  }
  ASSERT_EQ(store->Flush(), kStatusOk);
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  EXPECT_TRUE(Walk(*snapshot) == expected);
  EXPECT_TRUE(Walk(*snapshot, Range::All(), false) == Pairs(expected.rbegin(), expected.rend()));
  const std::unique_ptr<Cursor> cursor = NewCursor(*snapshot);
  for (int i = 0; i < 200; ++i) {
    const auto& [key, value] = expected[random() % expected.size()];
    cursor->Seek(key);
    ASSERT_EQ(Here(*cursor), key + "=" + value);
  }
}

// The memory of the key under the cursor goes when the cursor moves.
TEST_F(StoreCursorTest, SeeksItsOwnKey) {
  const std::vector<std::string> keys = {std::string(40, 'a'), std::string(40, 'b'), std::string(40, 'c')};
  std::unique_ptr<Store> store = OpenWith(keys);
  ASSERT_EQ(store->Flush(), kStatusOk);
  store.reset();
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
  const std::unique_ptr<Cursor> cursor = NewCursor(*snapshot);
  cursor->SeekToLast();
  for (const std::string& key : {keys[2], keys[1]}) {
    ASSERT_EQ(Here(*cursor), key + "=" + key);
    cursor->Seek(cursor->Key());
    EXPECT_EQ(Here(*cursor), key + "=" + key);
    cursor->SeekForPrev(cursor->Key());
    EXPECT_EQ(Here(*cursor), key + "=" + key);
    cursor->Prev();
  }
  EXPECT_EQ(Here(*cursor), keys[0] + "=" + keys[0]);
}

// A map and a cursor take the same steps.
class Walker {
 public:
  Walker(std::map<std::string, std::string> model, std::unique_ptr<Cursor> cursor)
      : model_(std::move(model)), here_(model_.end()), cursor_(std::move(cursor)) {}

  // Empty, or what is wrong.
  std::string Step(std::mt19937_64& random, const std::string& key) {
    const bool wasValid = here_ != model_.end();
    switch (random() % 12) {
      case 0:
        cursor_->SeekToFirst();
        here_ = model_.begin();
        break;
      case 1:
        cursor_->SeekToLast();
        here_ = model_.empty() ? model_.end() : std::prev(model_.end());
        break;
      case 2:
        cursor_->Seek(key);
        here_ = model_.lower_bound(key);
        break;
      case 3: {
        cursor_->SeekForPrev(key);
        const auto beyond = model_.upper_bound(key);
        here_ = beyond == model_.begin() ? model_.end() : std::prev(beyond);
        break;
      }
      case 4:
      case 5:
      case 6:
      case 7:
        cursor_->Next();
        if (wasValid) ++here_;
        break;
      default:
        cursor_->Prev();
        if (wasValid) here_ = here_ == model_.begin() ? model_.end() : std::prev(here_);
    }
    if (cursor_->Valid() != (here_ != model_.end())) return "stands where the map does not, or the reverse";
    if (!cursor_->Valid()) return cursor_->Status() == kStatusOk ? "" : StatusWord(cursor_->Status());
    if (cursor_->Key() != here_->first) return std::string(cursor_->Key()) + " instead of " + here_->first;
    std::string_view value;
    if (random() % 2 == 0) return "";
    if (cursor_->Value(&value) != kStatusOk) return "the value can't be read";
    return value == here_->second ? "" : "another value";
  }

 private:
  const std::map<std::string, std::string> model_;
  std::map<std::string, std::string>::const_iterator here_;
  const std::unique_ptr<Cursor> cursor_;
};

TEST_F(StoreCursorTest, WalksLikeAMapOverManyBlocksAndTheLog) {
  std::mt19937_64 random = TestRandom(22);
  const uint64_t rounds = TestSize(12, 200);
  for (uint64_t round = 0; round < rounds; ++round) {
    std::unique_ptr<Store> store;
    ASSERT_EQ(Store::Open(path_ + std::to_string(round), Options(), &store), kStatusOk);
    std::map<std::string, std::string> model;
    const uint64_t keys = 1 + random() % 60;
    const auto draw = [&] {
      const uint64_t n = random() % (keys + 2);
      return n % 4 == 0 ? std::string(1 + n, 'm')
                        : std::to_string(n) + (n % 4 == 1 ? std::string(1, '\0') : "");
    };
    const uint64_t blocks = random() % 12;
    for (uint64_t block = 0; block <= blocks; ++block) {
      for (uint64_t i = 0; i < random() % 40; ++i) {
        const std::string key = draw();
        if (random() % 3 == 0) {
          ASSERT_EQ(store->Delete(key), kStatusOk);
          model.erase(key);
        } else {
          ASSERT_EQ(store->Put(key, std::to_string(random())), kStatusOk);
          model[key] = Get(*store, key);
        }
      }
      if (block != blocks) {
        ASSERT_EQ(store->Flush(), kStatusOk);
      }
    }
    const std::unique_ptr<Snapshot> snapshot = Take(*store);
    for (int i = 0; i < 4; ++i) {
      Range range;
      if (i % 2 == 1) range.from = draw();
      if (i >= 2) range.to = draw();
      std::map<std::string, std::string> part;
      for (const auto& [key, value] : model) {
        if (key >= range.from && (range.to.empty() || key < range.to)) part[key] = value;
      }
      Walker walker(part, NewCursor(*snapshot, range));
      for (int step = 0; step < 300; ++step) {
        const std::string wrong = walker.Step(random, draw());
        ASSERT_EQ(wrong, "") << "round " << round << ", step " << step << ", range [" << range.from << ", "
                             << range.to << ")";
      }
    }
  }
}

}  // namespace
}  // namespace Kestrun::Testing
