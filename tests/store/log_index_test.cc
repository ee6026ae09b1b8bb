// The ordered index of one filling of the log, beside a map of all versions.
#include "storage/log_index.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

LogIndex::Version VersionAt(uint32_t offset) {
  DataEntry entry = {};
  entry.valueOffset = offset + 40;
  entry.valueSize = offset % 97;
  entry.timestamp = 1700000000 + offset;
  entry.ttl = offset;
  entry.deleted = offset % 5 == 0;
  return {offset, entry};
}

// The versions of each key, newest first.
using Versions = std::map<std::string, std::vector<uint32_t>>;

std::optional<uint32_t> NewestBefore(const std::vector<uint32_t>& versions, uint32_t limit) {
  for (const uint32_t offset : versions) {
    if (offset < limit) return offset;
  }
  return std::nullopt;
}

using State = std::map<std::string, uint32_t>;

State StateBefore(const Versions& model, uint32_t limit) {
  State state;
  for (const auto& [key, versions] : model) {
    if (const auto newest = NewestBefore(versions, limit)) state[key] = *newest;
  }
  return state;
}

// Keys that share beginnings, end in zero bytes or are as long as keys get.
std::string DrawKey(std::mt19937_64& random) {
  const uint64_t n = random() % 64;
  switch (n % 5) {
    case 0:
      return std::string("prefix8b", 8) + std::string(n / 5, '\0');
    case 1:
      return "prefix8b" + std::to_string(n);
    case 2:
      return std::string(1 + n / 5, static_cast<char>(n * 3));
    case 3:
      return std::string(65535 - n, 'z');
    default:
      return std::to_string(n);
  }
}

TEST(LogIndexTest, ShowsTheStateBeforeEveryLimitInBothDirections) {
  std::mt19937_64 random = TestRandom(11);
  LogIndex index;
  Versions model;
  uint32_t offset = 128;
  std::vector<uint32_t> limits = {0, 1, 128, 129, LogIndex::kNoLimit};
  for (int i = 0; i < 600; ++i) {
    const std::string key = DrawKey(random);
    index.Insert(key, VersionAt(offset));
    index.Insert(key, VersionAt(offset));  // a record that is known already
    std::vector<uint32_t>& versions = model[key];
    versions.insert(versions.begin(), offset);
    if (i % 97 == 0) limits.push_back(offset);
    offset += 1 + static_cast<uint32_t>(random() % 50);
  }
  EXPECT_EQ(index.KeyCount(), model.size());

  for (const uint32_t limit : limits) {
    const State state = StateBefore(model, limit);
    LogIndex::Version found;
    for (const auto& [key, versions] : model) {
      const auto expected = state.find(key);
      ASSERT_EQ(index.Find(key, limit, &found), expected != state.end()) << limit;
      if (expected == state.end()) continue;
      ASSERT_EQ(found.offset, expected->second);
      ASSERT_EQ(found.entry.ttl, expected->second);
      ASSERT_EQ(found.entry.deleted, expected->second % 5 == 0);
    }

    LogIndex::Iterator position(index, limit);
    EXPECT_FALSE(position.Valid());
    position.SeekToFirst();
    for (const auto& [key, newest] : state) {
      ASSERT_TRUE(position.Valid()) << limit;
      ASSERT_EQ(position.Key(), key);
      ASSERT_EQ(position.Get().offset, newest);
      position.Next();
    }
    EXPECT_FALSE(position.Valid());
    position.SeekToLast();
    for (auto expected = state.rbegin(); expected != state.rend(); ++expected) {
      ASSERT_TRUE(position.Valid()) << limit;
      ASSERT_EQ(position.Key(), expected->first);
      ASSERT_EQ(position.Get().offset, expected->second);
      position.Prev();
    }
    EXPECT_FALSE(position.Valid());

    for (int i = 0; i < 50; ++i) {
      std::string key = DrawKey(random);
      if (i % 3 == 1) key += '\0';
      if (i % 3 == 2) key.pop_back();
      const auto after = state.lower_bound(key);
      position.Seek(key);
      ASSERT_EQ(position.Valid(), after != state.end());
      if (position.Valid()) {
        ASSERT_EQ(position.Key(), after->first);
      }
      const auto beyond = state.upper_bound(key);
      position.SeekForPrev(key);
      ASSERT_EQ(position.Valid(), beyond != state.begin());
      if (position.Valid()) {
        ASSERT_EQ(position.Key(), std::prev(beyond)->first);
        ASSERT_EQ(position.Get().offset, std::prev(beyond)->second);
      }
    }
  }
}

TEST(LogIndexTest, OlderVersionsThatComeLateTakeTheirPlace) {
  std::mt19937_64 random = TestRandom(12);
  std::vector<std::pair<std::string, uint32_t>> records;
  for (uint32_t offset = 128; offset < 4000; offset += 16)
    records.emplace_back(std::to_string(random() % 40), offset);
  std::vector<std::pair<std::string, uint32_t>> shuffled = records;
  std::shuffle(shuffled.begin(), shuffled.end(), random);
  LogIndex index;
  for (const auto& [key, offset] : shuffled) index.Insert(key, VersionAt(offset));
  Versions model;
  for (const auto& [key, offset] : records) model[key].insert(model[key].begin(), offset);

  EXPECT_EQ(index.KeyCount(), model.size());
  for (const uint32_t limit : {128u, 500u, 2000u, 4000u}) {
    State seen;
    LogIndex::Iterator position(index, limit);
    for (position.SeekToFirst(); position.Valid(); position.Next())
      seen[std::string(position.Key())] = position.Get().offset;
    EXPECT_EQ(seen, StateBefore(model, limit)) << limit;
  }
}

TEST(LogIndexTest, IsEmptyAfterClearAndTakesEntriesAgain) {
  LogIndex index;
  for (int round = 0; round < 3; ++round) {
    LogIndex::Iterator position(index);
    position.SeekToFirst();
    EXPECT_FALSE(position.Valid());
    position.SeekToLast();
    EXPECT_FALSE(position.Valid());
    EXPECT_EQ(index.KeyCount(), 0u);
    for (uint32_t i = 0; i < 3000; ++i) index.Insert("key" + std::to_string(i), VersionAt(128 + i));
    EXPECT_EQ(index.KeyCount(), 3000u);
    index.Clear();
  }
}

// The older face walks like this while its callbacks write.
TEST(LogIndexTest, AWalkWithoutALimitMeetsWhatIsInsertedMeanwhile) {
  LogIndex index;
  uint32_t offset = 128;
  for (const char* key : {"b", "d", "f"}) index.Insert(key, VersionAt(offset++));
  const LogIndex::Iterator before(index, offset);
  LogIndex::Iterator position(index);
  std::vector<std::string> seen;
  for (position.SeekToFirst(); position.Valid(); position.Next()) {
    const std::string key(position.Key());
    seen.push_back(key);
    if (key.size() == 1) index.Insert(key + "+", VersionAt(offset++));
    index.Insert("a", VersionAt(offset++));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"b", "b+", "d", "d+", "f", "f+"}));
  index.Insert("g", VersionAt(offset++));
  position.SeekToLast();
  EXPECT_EQ(position.Key(), "g");
  index.Insert("e", VersionAt(offset++));
  position.SeekForPrev("e");
  EXPECT_EQ(position.Key(), "e");

  LogIndex::Iterator limited = before;
  limited.SeekToLast();
  EXPECT_EQ(limited.Key(), "f");
  limited.Prev();
  EXPECT_EQ(limited.Key(), "d");
}

// Few of them, many, in order and out of order, before and after walks.
TEST(LogIndexTest, IsInOrderHoweverManyWereInsertedSinceTheLastWalk) {
  std::mt19937_64 random = TestRandom(13);
  LogIndex index;
  Versions model;
  uint32_t offset = 128;
  for (const int count : {1, 2, 3000, 1, 0, 500, 2, 4000}) {
    for (int i = 0; i < count; ++i) {
      const std::string key = count % 2 == 0 ? "a long common beginning " + std::to_string(random() % 5000)
                                             : "a long common beginning 9" + std::to_string(offset);
      index.Insert(key, VersionAt(offset));
      std::vector<uint32_t>& versions = model[key];
      versions.insert(versions.begin(), offset++);
    }
    State seen;
    std::string last;
    LogIndex::Iterator position(index);
    for (position.SeekToFirst(); position.Valid(); position.Next()) {
      ASSERT_LT(last, position.Key());
      last = position.Key();
      seen[last] = position.Get().offset;
    }
    ASSERT_EQ(seen, StateBefore(model, LogIndex::kNoLimit)) << count;
  }
}

// A child has the thread that forked, and no other: nobody there completes a list that another thread was at.
TEST(LogIndexTest, AForkedChildWalksWhatWasInsertedBefore) {
  constexpr uint32_t kFirst = 128;
  constexpr uint32_t kVersions = 5000;
  const auto keyOf = [](uint32_t offset) { return offset * 7919u % 3000u; };
  const uint64_t rounds = TestSize(30, 1000);
  for (uint64_t round = 0; round < rounds; ++round) {
    LogIndex index;
    std::atomic<uint32_t> end{kFirst};
    std::thread writer([&] {
      for (uint32_t i = 0; i < kVersions; ++i) {
        index.Insert(std::to_string(keyOf(kFirst + i)), {kFirst + i, DataEntry()});
        end.store(kFirst + i + 1, std::memory_order_release);
        if (i % 200 == 199) index.Order();
      }
    });
    const auto forksAt = static_cast<uint32_t>(kFirst + kVersions * round / rounds);
    while (end.load() < forksAt) std::this_thread::yield();
    const uint32_t limit = end.load(std::memory_order_acquire);
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      std::vector<bool> expected(3000);
      for (uint32_t offset = kFirst; offset < limit; ++offset) expected[keyOf(offset)] = true;
      LogIndex::Iterator position(index, limit);
      for (position.SeekToFirst(); position.Valid(); position.Next()) {
        const size_t key = std::stoul(std::string(position.Key()));
        if (!expected[key]) _exit(1);
        expected[key] = false;
      }
      _exit(std::count(expected.begin(), expected.end(), true) == 0 ? 0 : 2);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    writer.join();
    ASSERT_EQ(status, 0) << "round " << round;
  }
}

TEST(LogIndexTest, RoomThatWasReservedIsEnough) {
  LogIndex index;
  const std::string key(60000, 'k');
  index.Reserve(50, 50 * (key.size() + 1));
  for (uint32_t i = 0; i < 50; ++i) index.Insert(key + static_cast<char>('A' + i), VersionAt(128 + i));
  EXPECT_EQ(index.KeyCount(), 50u);
}

}  // namespace
}  // namespace Kestrun::Testing
