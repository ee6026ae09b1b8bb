// One cache, several threads.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "block/block_cache.h"
#include "tests/block/block_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

using BlockCacheThreadsTest = BlockTest;

TEST_F(BlockCacheThreadsTest, EveryThreadGetsTheBlockItAsksForWhateverTheOthersDo) {
  constexpr int kBlocks = 24;  // more than the cache holds
  for (int i = 0; i < kBlocks; ++i) {
    const std::string name = "block" + std::to_string(i);
    Store(name, BlockImage({{name, std::string(100, static_cast<char>('a' + i))}}).Bytes());
  }
  BlockCache cache;
  const uint64_t rounds = TestSize(2000, 100000);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (uint64_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      std::mt19937_64 random = TestRandom(thread);
      for (uint64_t round = 0; round < rounds; ++round) {
        const int number = static_cast<int>(random() % kBlocks);
        const std::string name = "block" + std::to_string(number);
        const std::shared_ptr<Block> block = cache.GetOrLoad(name, PathOf(name));
        const Value value = block == nullptr ? Value{kStatusInvalid, true, {}} : ReadValue(*block, Key(name));
        if (value.bytes != std::string(100, static_cast<char>('a' + number))) ++wrong;
        if (random() % 16 == 0) cache.Erase(name);
        if (random() % 16 == 0 && block != nullptr) cache.Put(name, block);
        if (random() % 512 == 0) cache.Clear();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Kestrun::Testing
