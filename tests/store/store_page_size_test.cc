// Stores whose blocks were written on machines with other page sizes, read through Snapshot::Open.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/store/store_fixture.h"
#include "tests/support/block_image.h"
#include "tests/support/file_bytes.h"
#include "tests/support/log_image.h"
#include "tests/support/manifest_image.h"

namespace Kestrun::Testing {
namespace {

class StorePageSizeTest : public StoreTest {
 protected:
  // A store's directory with an empty log and no block.
  StorePageSizeTest() {
    std::filesystem::create_directory(path_);
    WriteFile(path_ + "/wal_v5", log_.Bytes());
    WriteFile(path_ + "/manifest_v5", manifest_.Bytes());
  }

  void AddBlock(const std::string& name, const std::vector<BlockImageEntry>& entries, uint64_t pageSize) {
    WriteFile(path_ + "/" + name + ".blk_v5", BlockImage(entries, pageSize).Bytes());
    manifest_.Append(name, std::string(8, '\xFF') + '\x05');  // a filter that knows every key
    WriteFile(path_ + "/manifest_v5", manifest_.Bytes());
    for (const BlockImageEntry& entry : entries) Expect(entry.key, entry.value, entry.deleted);
  }
  void AppendToLog(const std::string& key, const std::string& value) {
    log_.Append({key, value});
    WriteFile(path_ + "/wal_v5", log_.Bytes());
    Expect(key, value, false);
  }

  // What was written is all that is shown, by Get and in both directions.
  void ExpectEverything() {
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(Snapshot::Open(path_, &snapshot), kStatusOk);
    for (const auto& [key, value] : expected_) EXPECT_EQ(Get(*snapshot, key), value) << key;
    EXPECT_EQ(Get(*snapshot, "nobody"), kNothing);
    Pairs pairs(expected_.begin(), expected_.end());
    EXPECT_EQ(Walk(*snapshot), pairs);
    std::reverse(pairs.begin(), pairs.end());
    EXPECT_EQ(Walk(*snapshot, Range::All(), false), pairs);
  }

  static std::string KeyOf(int number, size_t size = 8) {
    char text[16];
    std::snprintf(text, sizeof(text), "key%05d", number);
    std::string key = text;
    key.resize(std::max(size, key.size()), 'k');
    return key;
  }

  std::map<std::string, std::string> expected_;

 private:
  void Expect(const std::string& key, const std::string& value, bool deleted) {
    if (deleted) {
      expected_.erase(key);
    } else {
      expected_[key] = value;
    }
  }

  LogImage log_{8192};
  ManifestImage manifest_;
};

constexpr uint64_t kPageSizes[] = {4096, 16384, 65536};

TEST_F(StorePageSizeTest, BlocksOfSeveralPageSizesAreReadInOneStore) {
  char name = 'A';
  for (const uint64_t pageSize : kPageSizes) {
    const auto first = static_cast<int>(name - 'A') * 2;
    AddBlock(std::string(31, name++),
             {{KeyOf(first), "old"}, {KeyOf(first + 1), "kept"}, {KeyOf(first + 2), "overwritten"}},
             pageSize);
    ExpectEverything();
  }
  AddBlock(std::string(31, name), {{KeyOf(0), "new"}, {KeyOf(1), "", true}}, 65536);
  AppendToLog(KeyOf(3), "in the log");
  ExpectEverything();
  EXPECT_EQ(expected_.size(), 6u);
}

// Each section fills less than a page, a page but for one byte, a page, and more, so that the next one begins
// wherever it may.
TEST_F(StorePageSizeTest, SectionsThatEndAroundAPageAreFound) {
  constexpr size_t kDataHead = 128 + 28;
  constexpr size_t kSectionHead = 28;
  int number = 0;
  char name = 'A';
  for (const uint64_t pageSize : kPageSizes) {
    std::vector<size_t> sizes;
    for (const size_t end : {pageSize - 1, pageSize, pageSize + 1, 3 * pageSize})
      sizes.push_back(end - kDataHead);
    for (const size_t size : sizes) {
      AddBlock(std::string(31, name++), {{KeyOf(number++), std::string(size, 'v')}}, pageSize);
    }
    for (const size_t end : {pageSize - 1, pageSize, pageSize + 1}) {
      const size_t size = std::min<size_t>(end - kSectionHead, 65535);  // the longest key
      AddBlock(std::string(31, name++), {{KeyOf(number++, size), "long key"}}, pageSize);
    }
  }
  ExpectEverything();
}

TEST_F(StorePageSizeTest, TablesOfManyPagesAreRead) {
  char name = 'A';
  for (const uint64_t pageSize : kPageSizes) {
    std::vector<BlockImageEntry> entries;
    for (int i = 0; i < 3000; ++i) {
      entries.push_back(
          {KeyOf(i * 3 + (name - 'A'), 40), std::string(static_cast<size_t>(i % 90), 'x'), i % 11 == 5});
    }
    AddBlock(std::string(31, name++), entries, pageSize);
  }
  ExpectEverything();
}

}  // namespace
}  // namespace Kestrun::Testing
