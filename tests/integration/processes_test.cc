// Two programs, or more, on one store.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "tests/integration/worker.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {
namespace {

class ProcessesTest : public ::testing::Test {
 protected:
  void OpenIn(Worker& worker) const { ASSERT_EQ(worker.Do("open " + path_ + " 4096"), "0"); }
  static void ExpectFilled(Worker& worker, const std::string& prefix, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string key = prefix + std::to_string(i);
      ASSERT_EQ(worker.Do("get " + key), "0 value of " + key);
    }
  }
  size_t BlockFiles() const {
    size_t count = 0;
    for (const auto& file : std::filesystem::directory_iterator(path_)) {
      if (file.path().extension() == ".blk_v5") ++count;
    }
    return count;
  }

  ScratchDirectory directory_;
  const std::string path_ = directory_.PathOf("store");
};

TEST_F(ProcessesTest, EachSeesWhatTheOtherWritesAtOnce) {
  Worker first;
  Worker second;
  OpenIn(first);
  OpenIn(second);
  EXPECT_EQ(first.Do("insert key one"), "0");
  EXPECT_EQ(second.Do("get key"), "0 one");
  EXPECT_EQ(second.Do("insert key two"), "0");
  EXPECT_EQ(first.Do("get key"), "0 two");
  EXPECT_EQ(first.Do("delete key"), "0");
  EXPECT_EQ(second.Do("contains key"), "no");
  EXPECT_EQ(second.Do("get key"), "0");
}

TEST_F(ProcessesTest, EachSeesTheBlocksThatTheOtherFlushesAndMerges) {
  Worker first;
  Worker second;
  OpenIn(first);
  OpenIn(second);
  for (int round = 0; round < 4; ++round) {
    Worker& writer = round % 2 == 0 ? first : second;
    Worker& reader = round % 2 == 0 ? second : first;
    const std::string key = "key" + std::to_string(round);
    EXPECT_EQ(writer.Do("insert " + key + " value"), "0");
    EXPECT_EQ(writer.Do("flush"), "0");
    EXPECT_EQ(reader.Do("get " + key), "0 value");
    EXPECT_EQ(reader.Do("insert between " + std::to_string(round)), "0");
    EXPECT_EQ(writer.Do("get between"), "0 " + std::to_string(round));
  }
  EXPECT_EQ(BlockFiles(), 4u);
  EXPECT_EQ(second.Do("compact"), "0");
  EXPECT_EQ(BlockFiles(), 1u);
  EXPECT_EQ(first.Do("scan"), "0 between key0 key1 key2 key3 between");
  EXPECT_EQ(first.Do("flush"), "0");
  EXPECT_EQ(second.Do("get between"), "0 3");
}

TEST_F(ProcessesTest, BothAppendAtTheSameTimeAndNothingIsLost) {
  const int count = static_cast<int>(TestSize(800, 20000));
  Worker first;
  Worker second;
  OpenIn(first);
  OpenIn(second);
  first.Begin("fill first- " + std::to_string(count));
  second.Begin("fill second- " + std::to_string(count));
  EXPECT_EQ(first.End(), "0");
  EXPECT_EQ(second.End(), "0");
  EXPECT_GE(BlockFiles(), 2u);
  ExpectFilled(first, "second-", count);
  ExpectFilled(second, "first-", count);
  Worker third;
  OpenIn(third);
  ExpectFilled(third, "first-", count);
  ExpectFilled(third, "second-", count);
}

TEST_F(ProcessesTest, OneCompactsWhileTheOtherAppends) {
  const int count = static_cast<int>(TestSize(600, 20000));
  Worker writer;
  Worker other;
  OpenIn(writer);
  OpenIn(other);
  writer.Begin("fill key- " + std::to_string(count));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(other.Do("compact"), "0");
  EXPECT_EQ(writer.End(), "0");
  EXPECT_EQ(other.Do("compact"), "0");
  ExpectFilled(writer, "key-", count);
  ExpectFilled(other, "key-", count);
}

TEST_F(ProcessesTest, AStoreClosedByOneIsOpenedByTheNext) {
  for (int round = 0; round < 5; ++round) {
    Worker worker;
    OpenIn(worker);
    for (int i = 0; i < round; ++i) ExpectFilled(worker, "round" + std::to_string(i) + "-", 50);
    EXPECT_EQ(worker.Do("fill round" + std::to_string(round) + "- 50"), "0");
    EXPECT_EQ(worker.Do("close"), "0");
    OpenIn(worker);
    ExpectFilled(worker, "round" + std::to_string(round) + "-", 50);
  }
}

TEST_F(ProcessesTest, WhatAKilledOneWroteIsThere) {
  Worker reader;
  OpenIn(reader);
  for (int round = 0; round < 3; ++round) {
    const std::string prefix = "round" + std::to_string(round) + "-";
    Worker writer;
    OpenIn(writer);
    EXPECT_EQ(writer.Do("fill " + prefix + " 100"), "0");
    writer.Kill();
    ExpectFilled(reader, prefix, 100);
  }
  Worker later;
  OpenIn(later);
  for (int round = 0; round < 3; ++round) ExpectFilled(later, "round" + std::to_string(round) + "-", 100);
}

// Kept: the other one goes on with the blocks that it knows until the next one is recorded.
TEST_F(ProcessesTest, AClearEmptiesTheLogForAllAndTheBlocksWithTheNextFlush) {
  Worker first;
  Worker second;
  OpenIn(first);
  OpenIn(second);
  EXPECT_EQ(first.Do("insert flushed value"), "0");
  EXPECT_EQ(first.Do("flush"), "0");
  EXPECT_EQ(first.Do("insert logged value"), "0");
  EXPECT_EQ(second.Do("scan"), "0 flushed logged");
  EXPECT_EQ(first.Do("clear"), "0");
  EXPECT_EQ(first.Do("scan"), "0");
  EXPECT_EQ(second.Do("get logged"), "0");
  EXPECT_EQ(second.Do("get flushed"), "0 value");
  EXPECT_EQ(second.Do("flush"), "0");
  EXPECT_EQ(second.Do("scan"), "0");
  EXPECT_EQ(first.Do("scan"), "0");
}

TEST_F(ProcessesTest, SeveralOpenAMissingStoreAtTheSameMoment) {
  for (uint64_t round = 0; round < TestSize(10, 1000); ++round) {
    const std::string path = path_ + std::to_string(round);
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 4; ++i) workers.push_back(std::make_unique<Worker>());
    for (const auto& worker : workers) worker->Begin("open " + path + " 4096");
    for (const auto& worker : workers) ASSERT_EQ(worker->End(), "0");
    for (size_t i = 0; i < workers.size(); ++i) workers[i]->Begin("insert k" + std::to_string(i) + " v");
    for (const auto& worker : workers) ASSERT_EQ(worker->End(), "0");
    for (const auto& worker : workers) ASSERT_EQ(worker->Do("scan"), "0 k0 k1 k2 k3");
  }
}

}  // namespace
}  // namespace Kestrun::Testing
