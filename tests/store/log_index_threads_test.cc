// Readers of a log's index beside the one thread that writes to it.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "storage/log_index.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

// Record i stands at 128 + i and belongs to the key i % kKeys:
// what holds before each limit follows from the limit.
constexpr uint32_t kFirst = 128;
constexpr uint32_t kKeys = 100;

std::string KeyOf(uint32_t number) {
  return "key-" + std::to_string(1000 + number % kKeys);
}

// What is wrong with the state before `limit`; empty when nothing is.
std::string Check(const LogIndex& index, uint32_t limit, bool forward) {
  const uint32_t records = limit - kFirst;
  LogIndex::Iterator position(index, limit);
  uint32_t seen = 0;
  for (forward ? position.SeekToFirst() : position.SeekToLast(); position.Valid();
       forward ? position.Next() : position.Prev()) {
    const uint32_t offset = position.Get().offset;
    if (offset >= limit) return "a version from beyond the limit";
    if (position.Key() != KeyOf(offset - kFirst)) return "a version under another key";
    if (offset + kKeys < limit) return "an old version";
    ++seen;
  }
  if (seen != std::min(records, kKeys)) return std::to_string(seen) + " keys before " + std::to_string(limit);
  return "";
}

TEST(LogIndexThreads, ReadersSeeTheStateOfTheirLimitWhileTheIndexGrows) {
  LogIndex index;
  std::atomic<uint32_t> end{kFirst};
  std::atomic<bool> done{false};
  const auto records = static_cast<uint32_t>(TestSize(20000, 500000));
  std::vector<std::string> wrong(3);
  std::vector<std::thread> readers;
  for (size_t i = 0; i < wrong.size(); ++i) {
    readers.emplace_back([&, i] {
      std::mt19937_64 random = TestRandom(100 + i);
      do {
        const uint32_t now = end.load(std::memory_order_acquire);
        const uint32_t limit = i == 0 ? now : kFirst + static_cast<uint32_t>(random() % (now - kFirst + 1));
        wrong[i] = Check(index, limit, random() % 2 == 0);
        LogIndex::Version version;
        if (limit > kFirst && !index.Find(KeyOf(limit - kFirst - 1), limit, &version)) wrong[i] = "not found";
      } while (!done.load(std::memory_order_relaxed) && wrong[i].empty());
    });
  }
  for (uint32_t i = 0; i < records; ++i) {
    index.Insert(KeyOf(i), {kFirst + i, DataEntry()});
    end.store(kFirst + i + 1, std::memory_order_release);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  for (const std::string& one : wrong) EXPECT_EQ(one, "");
}

}  // namespace
}  // namespace Kestrun::Testing
