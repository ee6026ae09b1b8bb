#include "format/block_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestrun/status.h"
#include "tests/support/block_image.h"

namespace Kestrun::Testing {
namespace {

const std::vector<BlockImageEntry> kEntries = {{"alpha", "one", false, 1700000001, 60},
                                               {"beta", "", true, 1700000002, 0},
                                               {"gamma", std::string(300, 'v')}};

struct Walk {
  uint32_t status = kStatusOk;
  std::vector<std::string> keys;
};
Walk WalkAll(ByteSource& source, uint64_t pageSize, size_t windowSize = 4096) {
  BlockReader reader(source, pageSize, windowSize);
  Walk walk;
  walk.status = reader.Start();
  for (bool end = false; walk.status == kStatusOk;) {
    walk.status = reader.Next(&end);
    if (walk.status != kStatusOk || end) break;
    walk.keys.emplace_back(reader.Key());
  }
  return walk;
}

// Gives up after some bytes, as a disk does.
class FailingSource final : public ByteSource {
 public:
  FailingSource(std::string_view bytes, uint64_t sound)
      : memory_(bytes.data(), bytes.size()), sound_(sound) {}
  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    return offset + length > sound_ ? -1 : memory_.ReadAt(offset, buffer, length);
  }
  bool Size(uint64_t* size) override { return sound_ != 0 && memory_.Size(size); }

 private:
  MemorySource memory_;
  uint64_t sound_;
};

TEST(BlockReader, ReadsWhatIsInMemoryThroughWindowsOfAnySize) {
  const std::string bytes = BlockImage(kEntries, 4096).Bytes();
  MemorySource source(bytes.data(), bytes.size());
  for (const size_t windowSize : {1u, 47u, 48u, 100u, 1u << 20}) {
    const Walk walk = WalkAll(source, 4096, windowSize);
    EXPECT_EQ(walk.status, kStatusOk) << windowSize;
    EXPECT_EQ(walk.keys, (std::vector<std::string>{"alpha", "beta", "gamma"})) << windowSize;
  }
}

TEST(BlockReader, FindsOutThePageSizeOfAFile) {
  for (const uint64_t pageSize : {4096u, 16384u, 65536u}) {
    for (const size_t valueSize : {0u, 100u, 5000u, 20000u, 70000u}) {
      const std::string bytes = BlockImage({{"key", std::string(valueSize, 'v')}}, pageSize).Bytes();
      MemorySource source(bytes.data(), bytes.size());
      uint64_t found = 0;
      ASSERT_EQ(DetectBlockPageSize(source, &found), kStatusOk) << pageSize << ' ' << valueSize;
      BlockSections sections;
      ASSERT_EQ(ReadBlockSections(source, found, &sections), kStatusOk);
      BlockSections expected;
      ASSERT_EQ(ReadBlockSections(source, pageSize, &expected), kStatusOk);
      EXPECT_EQ(sections.entryTableOffset, expected.entryTableOffset) << pageSize << ' ' << valueSize;
    }
  }
  uint64_t untouched = 7;
  MemorySource none("x", 1);
  EXPECT_EQ(DetectBlockPageSize(none, &untouched), kStatusBlockCorrupt);
  EXPECT_EQ(untouched, 7u);
}

TEST(BlockReader, AnotherPageSizeIsCorrupt) {
  const std::string bytes = BlockImage(kEntries, 16384).Bytes();
  MemorySource source(bytes.data(), bytes.size());
  EXPECT_EQ(WalkAll(source, 4096).status, kStatusBlockCorrupt);
  EXPECT_EQ(WalkAll(source, 16384).status, kStatusOk);
}

TEST(BlockReader, TellsWhatCannotBeReadFromWhatIsDamaged) {
  const std::string bytes = BlockImage(kEntries, 4096).Bytes();
  FailingSource unknownSize(bytes, 0);
  EXPECT_EQ(WalkAll(unknownSize, 4096).status, kStatusStatFailed);
  for (const uint64_t sound : {1u, 130u, 4100u, 8200u, 8250u}) {
    FailingSource source(bytes, sound);
    EXPECT_EQ(WalkAll(source, 4096, 1).status, kStatusBlockShortRead) << sound;
    uint64_t pageSize = 0;
    if (sound < 8200) {
      EXPECT_EQ(DetectBlockPageSize(source, &pageSize), kStatusBlockShortRead) << sound;
    }
  }
}

TEST(BlockReader, AnEntryHandsOutItsFieldsWithoutItsPadding) {
  BlockImage image(kEntries, 4096);
  image.file.PutBytes(image.EntryOffset(0) + 9, "padding");
  image.SealEntry(0);
  MemorySource source(image.Bytes().data(), image.Bytes().size());
  BlockReader reader(source, 4096, 4096);
  bool end = false;
  ASSERT_EQ(reader.Start(), kStatusOk);
  ASSERT_EQ(reader.Next(&end), kStatusOk);
  const DataEntry entry = ToDataEntry(reader.Entry());
  EXPECT_EQ(entry.valueOffset, 156u);
  EXPECT_EQ(entry.valueSize, 3u);
  EXPECT_FALSE(entry.deleted);
  EXPECT_EQ(entry.timestamp, 1700000001u);
  EXPECT_EQ(entry.ttl, 60u);
}

}  // namespace
}  // namespace Kestrun::Testing
