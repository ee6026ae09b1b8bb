// Reading commands change nothing, on media that can't be written to and on stores that are damaged.
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "tests/inspect/forged_files.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

// All reading commands, with what stands after the store.
const std::vector<std::vector<std::string>>& ReadingCommands() {
  static const std::vector<std::vector<std::string>> commands = {
      {"get", "user-1"},
      {"contains", "user-1"},
      {"entry", "user-1"},
      {"scan"},
      {"show", "p"},
      {"types"},
      {"export"},
      {"stat"},
      {"verify"},
      {"dump"},
      {"watch", "--count", "1", "--interval", "1ms"}};
  return commands;
}

class HarmlessTest : public ToolTest {
 protected:
  void FillStore() {
    Put("user-1", "one");
    Put("user-2", "two");
    Do("flush");
    Do("append", {"p", "Point x:%i4", "7"});
  }

  // Names, contents, modes and times of change of the directory and all in it.
  std::map<std::string, std::string> Everything() {
    std::map<std::string, std::string> all;
    const auto add = [&all](const std::string& path) {
      struct stat status = {};
      EXPECT_EQ(lstat(path.c_str(), &status), 0);
      all[path] = std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) + " " +
                  std::to_string(status.st_ctim.tv_nsec) + " " + std::to_string(status.st_mode) + " " +
                  std::to_string(status.st_ino);
      if (S_ISREG(status.st_mode)) all[path] += ReadFile(path);
    };
    add(store_);
    for (const auto& entry : std::filesystem::directory_iterator(store_)) add(entry.path());
    return all;
  }

  std::vector<std::string> Line(const std::vector<std::string>& command) {
    std::vector<std::string> line = {command.front(), store_};
    line.insert(line.end(), command.begin() + 1, command.end());
    return line;
  }
};

TEST_F(HarmlessTest, ReadingCommandsChangeNothing) {
  FillStore();
  const auto before = Everything();
  for (const auto& command : ReadingCommands()) {
    const Ran ran = RunKestrun(Line(command));
    EXPECT_EQ(ran.status, 0) << command.front() << ran.err;
    EXPECT_EQ(Everything(), before) << command.front();
  }
}

// Of a log with a damaged record in the middle, or cut off below the end that its header tells.
TEST_F(HarmlessTest, WhatADamagedLogHidesIsToldByEveryReader) {
  const std::string type = "Point x:%i4";
  for (const char* key : {"a", "b", "c"}) Do("append", {key, type, "7"});
  const std::string good = ReadFile(store_ + "/wal_v5");
  std::string flipped = good;
  const size_t second = 128 + 40 + 1 + 6;
  flipped[second + 20] = static_cast<char>(flipped[second + 20] ^ 1);
  const std::string file = scratch_.PathOf("export.jsonl");
  const std::string backup = scratch_.PathOf("backup");
  for (const std::string& log : {flipped, good.substr(0, second), good.substr(0, second + 20)}) {
    WriteFile(store_ + "/wal_v5", log);
    WriteFile(file, "earlier");
    const auto before = Everything();
    const struct {
      std::vector<std::string> command;
      std::string out;
    } rows[] = {{{"scan", "--keys-only"}, "a\n"},
                {{"get", "a"}, std::string("\1\0\7\0\0\0", 6)},
                {{"get", "c"}, ""},
                {{"contains", "a"}, "yes\n"},
                {{"contains", "c"}, ""},
                {{"contains", "c", "--json"}, ""},
                {{"entry", "c"}, ""},
                {{"entry", "c", "--json"}, ""},
                {{"show", "a"}, "Point\nFIELD  TYPE  VALUE\nx      %i4   7\n"},
                {{"show", "c"}, ""},
                {{"types"}, "ID  TYPE\n 1  Point x:%i4\n"},
                {{"export"}, "{\"key\":\"a\",\"x\":7}\n"},
                {{"export", file}, ""},
                {{"clear", "--dry-run"}, ""},
                {{"del-range", "a", "d", "--dry-run"}, ""}};
    for (const auto& row : rows) {
      const Ran ran = RunKestrun(Line(row.command));
      EXPECT_EQ(ran.status, 3) << row.command.front();
      EXPECT_EQ(ran.out, row.out) << row.command.front();
      EXPECT_TRUE(Contains(ran.err, "can be read up to byte " + std::to_string(second) + " of ")) << ran.err;
      EXPECT_TRUE(Contains(ran.err, "kestrun recover " + store_ + " NEW")) << ran.err;
    }
    EXPECT_TRUE(Contains(Run("get", {"c"}).err, "can't be told")) << "it may be there";
    EXPECT_EQ(ReadFile(file), "earlier");
    EXPECT_EQ(Everything(), before);
    EXPECT_EQ(Run("backup", {backup}).status, 3);
    EXPECT_EQ(RunKestrun({"scan", backup, "--keys-only"}).out, "a\n");
    std::filesystem::remove_all(backup);
  }
}

TEST_F(HarmlessTest, NothingIsWrittenIntoTheDirectoryOfTheStore) {
  FillStore();
  const auto before = Everything();
  const std::string link = scratch_.PathOf("link");
  ASSERT_EQ(symlink(store_.c_str(), link.c_str()), 0);
  for (const std::string& directory : {store_, store_ + "/", store_ + "/../store", link, link + "/."}) {
    for (const auto& command : {std::vector<std::string>{"export", directory + "/wal_v5"},
                                {"export", directory + "/new.db"},
                                {"stat", "--html", directory + "/manifest_v5"},
                                {"stat", "--html", directory + "/page.html"},
                                {"backup", directory + "/new"},
                                {"recover", directory + "/new"},
                                {"recover", directory + "/new/"}}) {
      const Ran ran = RunKestrun(Line(command));
      EXPECT_EQ(ran.status, 3) << command.front() << directory;
      EXPECT_TRUE(Contains(ran.err, "lies in the directory of the store")) << ran.err;
      EXPECT_EQ(ran.out, "");
      ASSERT_EQ(Everything(), before) << command.front() << directory;
    }
  }
  // The same names elsewhere are nothing special.
  Do("export", {scratch_.PathOf("wal_v5")});
}

// A mount of its own where that is allowed; elsewhere modes take the permission away from everybody but root.
TEST_F(HarmlessTest, ReadingCommandsWorkWhereNothingCanBeWritten) {
  FillStore();
  const bool mounted =
      mount(store_.c_str(), store_.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
      mount(nullptr, store_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
  if (!mounted) {
    for (const auto& entry : std::filesystem::directory_iterator(store_)) {
      ASSERT_EQ(chmod(entry.path().c_str(), 0400), 0);
    }
    ASSERT_EQ(chmod(store_.c_str(), 0500), 0);
  }
  for (const auto& command : ReadingCommands()) {
    const Ran ran = RunKestrun(Line(command));
    EXPECT_EQ(ran.status, 0) << command.front() << ran.err;
  }
  const Ran put = Run("put", {"k", "v"});
  const Ran recover = Run("recover", {scratch_.PathOf("new")});
  if (mounted) {
    EXPECT_EQ(umount2(store_.c_str(), MNT_DETACH), 0);
  } else {
    chmod(store_.c_str(), 0700);
  }
  EXPECT_EQ(recover.status, 0) << recover.err;
  if (mounted || geteuid() != 0) {
    EXPECT_EQ(put.status, 3);
    EXPECT_TRUE(Contains(put.err, mounted ? "Read-only file system" : "Permission denied")) << put.err;
  }
}

TEST_F(HarmlessTest, DamageIsToldWithTheWayOnAndNothingIsDeleted) {
  FillStore();
  std::string block;
  for (const auto& entry : std::filesystem::directory_iterator(store_)) {
    if (entry.path().extension() == ".blk_v5") block = entry.path();
  }
  const std::string good = ReadFile(block);
  for (const size_t offset : {size_t{12}, size_t{128 + 24}, size_t{4096 + 20}, size_t{8192 + 28 + 40}}) {
    std::string bytes = good;
    bytes[offset] = static_cast<char>(bytes[offset] ^ 1);
    WriteFile(block, bytes);
    const auto before = Everything();
    for (const auto& command :
         {std::vector<std::string>{"get", "user-1"}, {"scan"}, {"export"}, {"contains", "user-1"}}) {
      const Ran ran = RunKestrun(Line(command));
      EXPECT_EQ(ran.status, 3) << command.front() << offset;
      EXPECT_TRUE(Contains(ran.err, "kStatusBlockCorrupt")) << ran.err;
      EXPECT_TRUE(Contains(ran.err, "kestrun recover")) << ran.err;
      EXPECT_EQ(Everything(), before) << command.front();
    }
    EXPECT_EQ(Run("verify").status, 1) << offset;
    EXPECT_EQ(Everything(), before);
  }
}

TEST_F(HarmlessTest, AChangedValueIsFoundWhereItWasWrittenWithAChecksum) {
  Put("a", "first");
  Put("b", "second");
  std::string log = ReadFile(store_ + "/wal_v5");
  log[128 + 40 + 1 + 5 + 40 + 1] = 'S';
  WriteFile(store_ + "/wal_v5", log);
  EXPECT_EQ(Run("get", {"a"}).out, "first");
  EXPECT_NE(Run("get", {"b"}).out, "Second");
  const Ran verify = Run("verify");
  EXPECT_EQ(verify.status, 1);
  EXPECT_TRUE(Contains(verify.out,
                       "wal_v5 at 174: the key and the value of the record are not those that were written"))
      << verify.out;

  ForgedEntry entry{"k", "value"};
  entry.epoch = 1;
  std::string block = ForgedBlock({{"j", "unmarked"}, entry});
  WriteFile(store_ + "/wal_v5", ForgedLog({}, 4096));
  WriteFile(store_ + "/manifest_v5", ForgedManifest({{ForgedName('A'), ForgedFilter({"j", "k"})}}));
  WriteFile(store_ + "/" + ForgedName('A') + ".blk_v5", block);
  EXPECT_EQ(Run("verify").status, 0) << Run("verify").out;
  block[156 + 8] = 'V';
  WriteFile(store_ + "/" + ForgedName('A') + ".blk_v5", block);
  const Ran damaged = Run("verify");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_TRUE(
      Contains(damaged.out, "the key and the value of entry 1, \"k\", are not those that were written"))
      << damaged.out;
}

TEST_F(HarmlessTest, AFullDiskIsToldAndLeavesWhatWasThere) {
  const std::string disk = scratch_.PathOf("disk");
  ASSERT_EQ(mkdir(disk.c_str(), 0700), 0);
  const bool mounted = mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=1m") == 0;
  if (!mounted) {
    // Without a disk of our own the size of a file is limited instead.
    EXPECT_EQ(RunKestrunInto("/dev/full", {"help"}).status, 3);
    return;
  }
  store_ = disk + "/store";
  const Ran tooLarge = Run("put", {"k", "v"});
  EXPECT_EQ(tooLarge.status, 3);
  EXPECT_TRUE(Contains(tooLarge.err, "No space left on device")) << tooLarge.err;

  store_ = disk + "/small";
  EXPECT_EQ(Run("put", {"k", "v", "--log-size", "128K"}).status, 0);
  std::string rows;
  for (int i = 0; i < 20000; ++i)
    rows += "{\"key\":\"k" + std::to_string(i) + "\",\"value\":\"" + std::string(100, 'v') + "\"}\n";
  const Ran import = Run("import", {"-"}, rows);
  EXPECT_EQ(import.status, 3);
  EXPECT_TRUE(Contains(import.err, "No space left on device")) << import.err;
  EXPECT_TRUE(Contains(import.err, "rows are stored and stay")) << import.err;
  EXPECT_EQ(Get("k"), "v");
  EXPECT_EQ(Run("verify").status, 0);
  // A block that does not fit leaves room when it is gone; the reason is told all the same.
  ASSERT_EQ(umount2(disk.c_str(), MNT_DETACH), 0);
  ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=5m"), 0);
  EXPECT_EQ(Run("put", {"k", "v", "--log-size", "3M"}).status, 0);
  EXPECT_EQ(Run("import", {"-"}, rows).status, 0);
  const Ran flush = Run("flush");
  EXPECT_EQ(flush.status, 3);
  EXPECT_TRUE(Contains(flush.err, "No space left on device")) << flush.err;
  EXPECT_EQ(Get("k"), "v");
  WriteFile(disk + "/rest", std::string(size_t{1900} << 10, 'x'));

  const Ran exported = Run("export", {disk + "/out.jsonl"});
  EXPECT_EQ(exported.status, 3);
  EXPECT_TRUE(Contains(exported.err, "No space left on device")) << exported.err;
  EXPECT_NE(access((disk + "/out.jsonl").c_str(), F_OK), 0);
  EXPECT_EQ(umount2(disk.c_str(), MNT_DETACH), 0);
}

TEST_F(HarmlessTest, WatchTellsWhatOthersDo) {
  Put("k", "v");
  const Ran ran = Run("watch", {"--count", "3", "--interval", "10ms", "--json"});
  EXPECT_EQ(ran.status, 0) << ran.err;
  std::istringstream lines(ran.out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const nlohmann::json look = nlohmann::json::parse(line);
    EXPECT_EQ(look["logUsed"], 128 + 42);
    EXPECT_EQ(look["writesPerSecond"], 0);
  }
  EXPECT_EQ(count, 3);
  EXPECT_TRUE(Contains(Do("watch", {"--count", "1", "--interval", "1ms"}), "WRITES/S"));

  RunningKestrun watching({"watch", store_, "--interval", "200ms", "--count", "10", "--json"});
  Put("l", "w");
  Do("flush");
  const std::string told = watching.Wait().out;
  EXPECT_TRUE(Contains(told, "\"flushes\":1")) << told;
}

TEST_F(HarmlessTest, WatchRefusesWhatItCanNotRead) {
  FillStore();
  for (const char* name : {"/wal_v5", "/manifest_v5"}) {
    const std::string good = ReadFile(store_ + name);
    std::string bytes = good;
    bytes[8] = static_cast<char>(bytes[8] ^ 1);
    WriteFile(store_ + name, bytes);
    const Ran ran = Run("watch", {"--count", "1", "--interval", "1ms"});
    EXPECT_EQ(ran.status, 3) << name;
    EXPECT_EQ(ran.out, "") << name;
    EXPECT_TRUE(Contains(ran.err, "Checksum")) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "kestrun recover")) << ran.err;
    WriteFile(store_ + name, good);
  }
  std::string manifest = ReadFile(store_ + "/manifest_v5");
  manifest[128 + 3] = static_cast<char>(manifest[128 + 3] ^ 1);
  WriteFile(store_ + "/manifest_v5", manifest);
  EXPECT_TRUE(Contains(Run("watch", {"--count", "1"}).err, "kStatusManifestUnreadable"));
}

TEST_F(HarmlessTest, BenchLeavesNothing) {
  const Ran ran = RunKestrun({"bench", scratch_.Path(), "--entries", "200"});
  EXPECT_EQ(ran.status, 0) << ran.err;
  EXPECT_TRUE(Contains(ran.out, "PER SECOND")) << ran.out;
  EXPECT_TRUE(std::filesystem::is_empty(scratch_.Path()));
  EXPECT_EQ(RunKestrun({"bench", scratch_.PathOf("missing")}).status, 3);
}

}  // namespace
}  // namespace Kestrun
