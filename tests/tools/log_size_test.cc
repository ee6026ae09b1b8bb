#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/child_process.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class LogSizeTest : public ToolTest {
 protected:
  int64_t LogSize() {
    struct stat status = {};
    EXPECT_EQ(stat((store_ + "/wal_v5").c_str(), &status), 0);
    return status.st_size;
  }
};

TEST_F(LogSizeTest, IsFourMebibytesUnlessToldOtherwise) {
  Put("k", "v");
  EXPECT_EQ(LogSize(), 4 << 20);
}

TEST_F(LogSizeTest, TakesBytesAndSuffixes) {
  const struct {
    const char* given;
    int64_t size;
  } rows[] = {{"169", 169}, {"4096", 4096}, {"3K", 3072}, {"1M", 1 << 20}, {"2m", 2 << 20}};
  for (const auto& row : rows) {
    store_ = scratch_.PathOf(row.given);
    EXPECT_EQ(Run("put", {"k", "", "--log-size", row.given}).status, 0) << row.given;
    EXPECT_EQ(LogSize(), row.size);
  }
}

TEST_F(LogSizeTest, RefusesNonsense) {
  for (const char* size : {"0", "128", "-5", "4G", "4294967296", "5000000K", "1.5M", "4MB", "M", "K4", "",
                           " 4K", "4k ", "0x1000", "99999999999999999999999G"}) {
    const Ran ran = Run("put", {"k", "v", "--wal-size", size});
    EXPECT_EQ(ran.status, 2) << size;
    EXPECT_TRUE(Contains(ran.err, "--log-size takes a number of bytes from 129 to 4294967295")) << ran.err;
  }
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
}

TEST_F(LogSizeTest, StaysThatOfTheLogThereIs) {
  ASSERT_EQ(Run("put", {"k", "v", "--wal-size", "8K"}).status, 0);
  Put("l", "w");
  EXPECT_EQ(LogSize(), 8192);
  ASSERT_EQ(Run("put", {"m", "x", "--wal-size", "4K"}).status, 0);
  EXPECT_EQ(LogSize(), 8192) << "a smaller size changes nothing";
  EXPECT_EQ(Do("scan"), "k  v\nl  w\nm  x\n");
}

TEST_F(LogSizeTest, GrowingLosesAndFlushesNothing) {
  ASSERT_EQ(Run("put", {"a", "1", "--log-size", "1K"}).status, 0);
  ASSERT_EQ(Run("del", {"gone"}).status, 0);
  ASSERT_EQ(Run("put", {"b", "2", "--ttl", "5000", "--log-size", "64K"}).status, 0);
  EXPECT_EQ(LogSize(), 65536);
  EXPECT_EQ(Do("scan"), "a  1\nb  2\n");
  EXPECT_EQ(DoJson("stat")["blocks"].size(), 0u);
  EXPECT_EQ(DoJson("verify")["sound"], true);

  Do("append", {"r", "T n:%i4", "5", "--log-size", "128K"});
  EXPECT_EQ(LogSize(), 131072);
  EXPECT_EQ(Get("a"), "1");
  EXPECT_EQ(DoJson("show", {"r"})["fields"]["n"], 5);
}

TEST_F(LogSizeTest, ReadingCommandsKnowNoLogSize) {
  Put("k", "v");
  for (const char* command : {"scan", "stat", "export", "types", "verify", "dump"}) {
    EXPECT_EQ(Run(command, {"--log-size", "64K"}).status, 2) << command;
  }
  EXPECT_EQ(Run("get", {"k", "--wal-size", "64K"}).status, 2);
  EXPECT_EQ(LogSize(), 4 << 20);
}

TEST_F(LogSizeTest, ADamagedLogIsNotGrown) {
  ASSERT_EQ(Run("put", {"a", "1", "--wal-size", "1K"}).status, 0);
  std::string log = ReadFile(store_ + "/wal_v5");
  log[16] = static_cast<char>(log[16] ^ 1);
  WriteFile(store_ + "/wal_v5", log);
  EXPECT_EQ(Run("put", {"b", "2", "--wal-size", "64K"}).status, 3);
  EXPECT_EQ(ReadFile(store_ + "/wal_v5"), log);
}

TEST_F(LogSizeTest, AnEntryLargerThanTheLogIsRefusedWithTheSizeItNeeds) {
  ASSERT_EQ(Run("put", {"a", "1", "--wal-size", "512"}).status, 0);
  const std::string value(344, 'x');
  const Ran ran = Run("put", {"b", value});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.err,
            "kestrun put: an entry of 385 bytes does not fit into the log, which holds 384: status 3330 "
            "(kStatusWalFull): the log has no room for the entry. Give --log-size 513 or more.\n");
  EXPECT_EQ(DoJson("stat")["blocks"].size(), 0u) << "nothing was flushed for it";
  EXPECT_EQ(Run("put", {"b", value, "--wal-size", "513"}).status, 0);
  EXPECT_EQ(Do("scan", {"--keys-only"}), "a\nb\n");
}

// Locks the bytes that a writer locks, as another process that uses the store does, until the parent signals.
int HoldLogLock(const std::string& log, ChildLink& parent) {
  const int file = open(log.c_str(), O_RDWR | O_CLOEXEC);
  struct flock range = {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_start = 0x40000000;
  range.l_len = 512;
  if (file < 0 || fcntl(file, F_SETLK, &range) != 0) return 1;
  parent.Signal();
  parent.Await();
  return 0;
}

TEST_F(LogSizeTest, WaitsForALockAndGivesUpAfterAWhile) {
  Put("k", "v");
  ChildProcess holder([this](ChildLink& parent) { return HoldLogLock(store_ + "/wal_v5", parent); });
  ASSERT_TRUE(holder.Await());
  const auto start = std::chrono::steady_clock::now();
  const Ran ran = Run("get", {"k"});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.out, "");
  EXPECT_TRUE(Contains(ran.err, "status 3843 (kStatusLockFailed)")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "Another process holds a lock of the store")) << ran.err;
  // What only reads the files asks for no lock.
  EXPECT_EQ(Run("stat").status, 0);
  EXPECT_EQ(Run("verify").status, 0);
  EXPECT_EQ(Run("dump").status, 0);
  EXPECT_EQ(Run("types").status, 0);
  holder.Signal();
  EXPECT_EQ(holder.Wait(), 0);
}

// A command that can't tell how far it is tells on a terminal how long it has taken.
TEST_F(LogSizeTest, WhatTakesLongSaysSoOnATerminal) {
  Put("k", "v");
  ChildProcess holder([this](ChildLink& parent) { return HoldLogLock(store_ + "/wal_v5", parent); });
  ASSERT_TRUE(holder.Await());
  const Ran ran = RunKestrunOnTerminal({"compact", store_});
  holder.Signal();
  EXPECT_EQ(holder.Wait(), 0);
  EXPECT_EQ(ran.status, 3);
  EXPECT_TRUE(Contains(ran.err, "\rcompacting 1.")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "\r\033[Kkestrun compact: "))
      << "the line is removed before the message" << ran.err;
  EXPECT_FALSE(Contains(RunKestrunOnTerminal({"compact", store_}).err, "compacting")) << "it took no time";
}

TEST_F(LogSizeTest, SucceedsWhenTheLockIsFreedMeanwhile) {
  Put("k", "v");
  ChildProcess holder([this](ChildLink& parent) { return HoldLogLock(store_ + "/wal_v5", parent); });
  ASSERT_TRUE(holder.Await());
  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, (store_ + "/wal_v5").c_str(), IN_OPEN), 0);
  RunningKestrun running({"put", store_, "k", "after"});
  // From the first time that it opens the log on, the program is about to ask for the lock.
  struct pollfd opened = {watch, POLLIN, 0};
  EXPECT_EQ(poll(&opened, 1, 60000), 1);
  close(watch);
  // Longer than the library itself tries, shorter than the program does.
  usleep(100000);
  holder.Signal();
  const Ran ran = running.Wait();
  EXPECT_EQ(ran.status, 0) << ran.err;
  EXPECT_EQ(holder.Wait(), 0);
  EXPECT_EQ(Get("k"), "after");
}

}  // namespace
}  // namespace Kestrun
