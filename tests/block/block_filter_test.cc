#include "block/block_filter.h"

#include <gtest/gtest.h>

#include <string>

namespace Kestrun::Testing {
namespace {

void Append(BlockIndex& index, const std::string& key) {
  index.Append(key, {}, std::nullopt);
}

TEST(BlockFilterTest, HoldsEveryKeyAndFewOthers) {
  BlockIndex index;
  for (int i = 100000; i < 200000; i += 2) Append(index, "key" + std::to_string(i));
  index.Finish();
  const BlockFilter filter(index);
  int wrong = 0;
  for (int i = 100000; i < 199999; ++i) {
    const std::string key = "key" + std::to_string(i);
    const bool held = filter.MayContain(BlockFilter::Probe(key));
    if (i % 2 == 0) {
      ASSERT_TRUE(held) << key;
    } else {
      wrong += held ? 1 : 0;
    }
  }
  EXPECT_LT(wrong, 50000 / 200);
  EXPECT_LT(filter.MemoryUsed(), 50000u * 2 + 1000);
}

TEST(BlockFilterTest, HoldsNothingBeyondTheKeysAtBothEnds) {
  BlockIndex index;
  for (const char* key : {"b", "c", "d"}) Append(index, key);
  index.Finish();
  const BlockFilter filter(index);
  for (const char* key : {"", "a", "d0", "e"})
    EXPECT_FALSE(filter.MayContain(BlockFilter::Probe(key))) << key;
  for (const char* key : {"b", "c", "d"}) EXPECT_TRUE(filter.MayContain(BlockFilter::Probe(key))) << key;
}

TEST(BlockFilterTest, AnEmptyBlockHoldsNothing) {
  BlockIndex index;
  index.Finish();
  EXPECT_FALSE(BlockFilter(index).MayContain(BlockFilter::Probe("")));
  EXPECT_FALSE(BlockFilter(index).MayContain(BlockFilter::Probe("a")));
}

TEST(BlockFilterTest, KeysOfEveryLengthAreTold) {
  BlockIndex index;
  for (size_t size = 1; size < 200; ++size) Append(index, std::string(size, 'k'));
  index.Finish();
  const BlockFilter filter(index);
  for (size_t size = 1; size < 200; ++size) {
    EXPECT_TRUE(filter.MayContain(BlockFilter::Probe(std::string(size, 'k')))) << size;
  }
}

}  // namespace
}  // namespace Kestrun::Testing
