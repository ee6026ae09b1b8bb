#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "tests/inspect/forged_files.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class RecoverTest : public ToolTest {
 protected:
  struct Recovered {
    int status;
    nlohmann::json told;
    std::string entries;
  };

  // Recovers into a new directory, and makes sure that the old one stays as it is.
  Recovered Recover(const std::vector<std::string>& options = {}) {
    const auto before = Files();
    const std::string target = scratch_.PathOf("recovered" + std::to_string(count_++));
    std::vector<std::string> line = {"recover", store_, target, "--json"};
    line.insert(line.end(), options.begin(), options.end());
    const Ran ran = RunKestrun(line);
    EXPECT_EQ(Files(), before);
    EXPECT_EQ(access((target + ".partial").c_str(), F_OK), -1);
    last_ = target;
    const nlohmann::json told = nlohmann::json::parse(ran.out, nullptr, false);
    EXPECT_TRUE(told.is_object()) << ran.out << ran.err;
    EXPECT_EQ(RunKestrun({"verify", target}).status, 0);
    return {ran.status, told, RunKestrun({"scan", target}).out};
  }

  std::map<std::string, std::string> Files() {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(store_))
      files[entry.path()] = ReadFile(entry.path());
    return files;
  }

  std::vector<std::string> Blocks() {
    std::vector<std::string> blocks;
    const nlohmann::json stat = DoJson("stat");
    for (const auto& block : stat["blocks"]) {
      blocks.push_back(store_ + "/" + block["name"].get<std::string>() + ".blk_v5");
    }
    return blocks;
  }

  void Flip(const std::string& path, size_t offset) {
    std::string bytes = ReadFile(path);
    ASSERT_LT(offset, bytes.size());
    bytes[offset] = static_cast<char>(bytes[offset] ^ 1);
    WriteFile(path, bytes);
  }

  int count_ = 0;
  std::string last_;
};

TEST_F(RecoverTest, OfASoundStoreTakesEverythingAndGivesZero) {
  Put("a", "old");
  Put("b", "gone");
  Do("flush");
  Put("a", "new");
  ASSERT_EQ(Run("del", {"b"}).status, 0);
  Do("append", {"r", "T n:%i4", "5"});
  ASSERT_EQ(Run("put", {"t", "short", "--ttl", "1h"}).status, 0);
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 0);
  EXPECT_EQ(recovered.told["taken"], 3);
  EXPECT_EQ(recovered.told["dropped"], 3) << "two old versions and a tombstone";
  EXPECT_EQ(recovered.told["unreadable"], 0);
  EXPECT_EQ(recovered.told["blocks"].size(), 1u);
  EXPECT_EQ(recovered.told["blocks"][0]["state"], "sound");
  EXPECT_EQ(RunKestrun({"get", last_, "a"}).out, "new");
  EXPECT_EQ(RunKestrun({"get", last_, "b"}).status, 1);
  EXPECT_TRUE(Contains(RunKestrun({"show", last_, "r"}).out, "n      %i4   5"));
  EXPECT_LE(nlohmann::json::parse(RunKestrun({"entry", last_, "t", "--json"}).out)["ttl"], 3600);
}

TEST_F(RecoverTest, TakesRecordsAfterATornOne) {
  Put("make", "a store");
  std::string log = ForgedLog({{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}}, 4096);
  log[128 + 42 + 36] = static_cast<char>(log[128 + 42 + 36] ^ 1);
  WriteFile(store_ + "/wal_v5", log);
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 1);
  EXPECT_EQ(recovered.entries, "a  1\nc  3\nd  4\n");
  EXPECT_EQ(recovered.told["unreadable"], 1);
  EXPECT_EQ(recovered.told["blocks"][0]["name"], "wal_v5")
      << "the log is told where something is wrong with it";
}

TEST_F(RecoverTest, TakesALogWhoseHeaderIsDamaged) {
  Put("a", "1");
  Put("b", "2");
  Flip(store_ + "/wal_v5", 16);
  EXPECT_EQ(Run("scan").status, 3);
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 1);
  EXPECT_EQ(recovered.entries, "a  1\nb  2\n");
}

TEST_F(RecoverTest, LeavesOutOldRecordsAfterTheEndOfALogWithoutAHeader) {
  Put("make", "a store");
  std::string log =
      ForgedLog({{"a", "new", false, kForgedTime + 100}, {"b", "stale", false, kForgedTime}}, 4096);
  Flip(store_ + "/wal_v5", 16);
  log[16] = static_cast<char>(log[16] ^ 1);
  WriteFile(store_ + "/wal_v5", log);
  EXPECT_EQ(Recover().entries, "a  new\n");
}

TEST_F(RecoverTest, TakesWhatIsSoundOfADamagedBlock) {
  Put("a", "1");
  Put("b", "2");
  Put("c", "3");
  Do("flush");
  const std::string block = Blocks().front();
  const std::string good = ReadFile(block);
  struct {
    const char* what;
    size_t offset;
    std::string entries;
    int unreadable;
  } rows[] = {
      {"the header", 12, "a  1\nb  2\nc  3\n", 0},
      {"the header of the values", 128 + 24, "a  1\nb  2\nc  3\n", 0},
      {"the header of the keys", 4096 + 24, "a  1\nb  2\nc  3\n", 0},
      {"the header of the entries", 8192 + 24, "a  1\nb  2\nc  3\n", 0},
      {"the name of the entries", 8192 + 3, "a  1\nb  2\nc  3\n", 0},
      {"an entry", 8192 + 28 + 48 + 16, "a  1\nc  3\n", 1},
  };
  for (const auto& row : rows) {
    WriteFile(block, good);
    Flip(block, row.offset);
    const Recovered recovered = Recover();
    EXPECT_EQ(recovered.entries, row.entries) << row.what;
    EXPECT_EQ(recovered.told["unreadable"], row.unreadable) << row.what;
    EXPECT_EQ(recovered.told["blocks"][0]["state"], "damaged") << row.what;
  }
}

TEST_F(RecoverTest, WhatIsCutOffABlockIsCounted) {
  std::string rows;
  for (int i = 0; i < 200; ++i) rows += "{\"key\":\"k" + std::to_string(1000 + i) + "\",\"value\":\"v\"}\n";
  ASSERT_EQ(Run("import", {"-"}, rows).status, 0);
  Do("flush");
  const std::string block = Blocks().front();
  const std::string good = ReadFile(block);
  const size_t entries = good.size() - 200 * 48;

  const auto cut = [&](std::string bytes, size_t size, int taken, int unreadable, bool exact) {
    WriteFile(block, bytes.substr(0, size));
    const Recovered recovered = Recover();
    EXPECT_EQ(recovered.status, 1) << size;
    EXPECT_EQ(recovered.told["taken"], taken) << size;
    EXPECT_EQ(recovered.told["unreadable"], unreadable) << size;
    EXPECT_EQ(recovered.told["unreadableIsExact"], exact) << size;
    EXPECT_EQ(recovered.told["blocks"][0]["unreadable"], unreadable) << size;
    EXPECT_EQ(recovered.told["blocks"][0]["unreadableIsExact"], exact) << size;
  };
  cut(good, good.size() - 1, 199, 1, true);
  cut(good, good.size() - 100, 197, 3, true);
  cut(good, entries + 48, 1, 199, true);
  cut(good, entries - 1, 0, 1, false);
  cut(good, 0, 0, 1, false);
  // The header of the entries does not tell their number any more, but the keys do not end
  // where the last one does.
  std::string bytes = good;
  bytes[entries - 4] = static_cast<char>(bytes[entries - 4] ^ 1);
  cut(bytes, good.size() - 100, 197, 1, false);

  const Ran ran = RunKestrun({"recover", store_, scratch_.PathOf("told")});
  EXPECT_TRUE(Contains(ran.err, "could not read at least 1\n")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "older versions may have come back")) << ran.err;
  EXPECT_TRUE(Contains(Do("stat"), "entries that can't be read: at least 1\n"));
}

TEST_F(RecoverTest, AnOlderVersionCountsWhereTheNewestCanNotBeRead) {
  Put("make", "a store");
  ForgedEntry newest{"k", "new"};
  newest.epoch = 1;
  WriteFile(store_ + "/wal_v5", ForgedLog({}, 4096));
  WriteFile(store_ + "/" + ForgedName('A') + ".blk_v5", ForgedBlock({{"k", "old"}}));
  WriteFile(store_ + "/" + ForgedName('B') + ".blk_v5", ForgedBlock({newest}));
  WriteFile(store_ + "/manifest_v5",
            ForgedManifest({{ForgedName('A'), ForgedFilter({"k"})}, {ForgedName('B'), ForgedFilter({"k"})}}));
  EXPECT_EQ(Recover().entries, "k  new\n");
  Flip(store_ + "/" + ForgedName('B') + ".blk_v5", 156);
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 1);
  EXPECT_EQ(recovered.told["unreadable"], 1);
  EXPECT_EQ(recovered.entries, "k  old\n");
}

TEST_F(RecoverTest, ASoundManifestDecidesWhichBlocksCountUnlessAllAreAskedFor) {
  Put("k", "v");
  Do("flush");
  WriteFile(store_ + "/" + ForgedName('Z') + ".blk_v5", ForgedBlock({{"back", "again"}}));
  const Recovered decided = Recover();
  EXPECT_EQ(decided.status, 0);
  EXPECT_EQ(decided.entries, "k  v\n");
  EXPECT_EQ(decided.told["blocks"][1]["name"], ForgedName('Z'));
  EXPECT_EQ(decided.told["blocks"][1]["state"], "left");
  EXPECT_EQ(Recover({"--all-blocks"}).entries, "back  again\nk     v\n");
}

TEST_F(RecoverTest, WithoutAManifestAllBlocksCountAndTimeTellsWhichIsNewer) {
  Put("make", "a store");
  std::remove((store_ + "/manifest_v5").c_str());
  WriteFile(store_ + "/wal_v5", ForgedLog({{"log", "newest", false, kForgedTime}}, 4096));
  WriteFile(
      store_ + "/" + ForgedName('B') + ".blk_v5",
      ForgedBlock({{"k", "newer", false, kForgedTime + 50}, {"log", "older", false, kForgedTime + 60}}));
  WriteFile(store_ + "/" + ForgedName('C') + ".blk_v5",
            ForgedBlock({{"k", "older", false, kForgedTime}}, 16384));
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.entries, "k    newer\nlog  newest\n");
  EXPECT_EQ(recovered.told["dropped"], 2);
  std::remove((store_ + "/wal_v5").c_str());
  EXPECT_EQ(Recover().entries, "k    newer\nlog  older\n") << "blocks alone are enough";
}

TEST_F(RecoverTest, WhatAStorePutAsideOfADamagedLogCountsWhereAllBlocksDo) {
  Put("a", "1");
  Put("b", "2");
  Put("c", "3");
  Flip(store_ + "/wal_v5", 128 + 42 + 36);
  const Ran put = Run("put", {"d", "4"});
  EXPECT_EQ(put.status, 0);
  EXPECT_TRUE(Contains(put.err, "The log is damaged at byte 170; what follows was saved in ")) << put.err;
  EXPECT_TRUE(Contains(put.err, "'kestrun recover " + store_ + " NEW --all-blocks'")) << put.err;
  EXPECT_EQ(Run("put", {"e", "5"}).err, "") << "it is told once";
  EXPECT_EQ(Do("scan", {"--keys-only"}), "a\nd\ne\n");
  const Ran verify = Run("verify");
  EXPECT_EQ(verify.status, 1);
  EXPECT_TRUE(Contains(verify.out, "damage  wal_v5.damaged-1")) << verify.out;
  EXPECT_TRUE(Contains(verify.out, "kestrun recover --all-blocks")) << verify.out;
  ASSERT_EQ(Run("del", {"e"}).status, 0);
  const std::string copy = scratch_.PathOf("copy");
  EXPECT_TRUE(Contains(Account("backup", {copy}),
                       "wal_v5.damaged-1, which was put aside of a damaged log, is not copied"));
  const Recovered decided = Recover();
  EXPECT_EQ(decided.status, 1) << "what is left may be all that there is of an entry";
  EXPECT_EQ(decided.entries, "a  1\nd  4\n");
  const Recovered all = Recover({"--all-blocks"});
  EXPECT_EQ(all.entries, "a  1\nc  3\nd  4\n");
  EXPECT_EQ(all.told["unreadable"], 1);
  EXPECT_TRUE(
      Contains(Account("clear", {"--yes"}), "wal_v5.damaged-1, which was put aside of a damaged log, stays"));
  EXPECT_EQ(Account("remove", {"--yes"}), "removed 3 files and the directory\n");
}

TEST_F(RecoverTest, AListedBlockThatIsGoneIsTold) {
  Put("k", "v");
  Do("flush");
  std::remove(Blocks().front().c_str());
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 1);
  EXPECT_EQ(recovered.told["blocks"][0]["state"], "missing");
  EXPECT_EQ(recovered.entries, "");
}

TEST_F(RecoverTest, RecordTypesThatWereLostAreGuessed) {
  Do("append", {"a", "Point x:%i4,far:%d,label:%s", "3", "0.25", "by the sea"});
  Do("append", {"b", "Point x:%i4,far:%d,label:%s", "-7", "1e6", "on the hill"});
  Do("append", {"c", "Note text:%s,more:*", "hello", "00ff7f"});
  ASSERT_EQ(std::remove((store_ + "/meta_v5").c_str()), 0);
  const Ran verify = Run("verify");
  EXPECT_EQ(verify.status, 1) << "records that nobody can read are damage";
  EXPECT_TRUE(Contains(verify.out, "damage  meta_v5")) << verify.out;
  const Recovered recovered = Recover();
  EXPECT_EQ(recovered.status, 1);
  EXPECT_EQ(recovered.told["guessedTypes"][0], "Recovered1 field1:%i4,field2:%d,field3:%s");
  EXPECT_EQ(RunKestrun({"show", last_, "a"}).out,
            "Recovered1\n"
            "FIELD   TYPE  VALUE\n"
            "field1  %i4   3\n"
            "field2  %d    0.25\n"
            "field3  %s    by the sea\n");
}

// A flipped bit in the file of types makes another number or another field of what stands there, and no
// line of it looks wrong.
TEST_F(RecoverTest, RecordTypesThatDoNotFitTheirRecordsAreDamage) {
  const std::string file = scratch_.PathOf("export.csv");
  for (int i = 0; i < 20; ++i) {
    Do("append",
       {"k" + std::to_string(i), "P x:%i4,label:%s", std::to_string(i), "label " + std::to_string(i)});
  }
  const std::string raw = Do("export", {"--raw"});
  const struct {
    const char* line;
    const char* told;
  } rows[] = {
      {"3#P x:%i4,label:%s\n", "20 values look like records of the type 1, which is not known"},
      {"1#P x:%i8,label:%s\n", "20 values of the type 1 do not hold the fields of 'P x:%i8,label:%s'"},
      {"1#P x:%i4-label:%s\n", "20 values of the type 1 do not hold the fields"},
      {"", "20 values look like records of the type 1, which is not known"}};
  for (const auto& row : rows) {
    WriteFile(store_ + "/meta_v5", row.line);
    const Ran verify = Run("verify");
    EXPECT_EQ(verify.status, 1) << row.line;
    EXPECT_TRUE(Contains(verify.out, std::string("damage  meta_v5 at 0: ") + row.told)) << verify.out;
    WriteFile(file, "earlier");
    for (const std::string& target : {file, std::string("-")}) {
      const Ran ran = Run("export", {target, "--format", "csv"});
      EXPECT_EQ(ran.status, 3) << row.line;
      EXPECT_TRUE(Contains(ran.err, row.told)) << ran.err;
    }
    EXPECT_EQ(ReadFile(file), "earlier");
    const Ran types = Run("types");
    EXPECT_EQ(types.status, 3) << row.line;
    EXPECT_TRUE(Contains(types.err, row.told)) << types.err;
    EXPECT_EQ(Do("export", {"--raw"}), raw);
    Do("export", {file, "--format", "csv", "--skip-bad-records"});
    const Recovered recovered = Recover();
    EXPECT_EQ(recovered.status, 1) << row.line;
    EXPECT_EQ(recovered.told["guessedTypes"][0], "Recovered1 field1:%i4,field2:%s") << row.line;
    EXPECT_EQ(nlohmann::json::parse(RunKestrun({"show", last_, "k7", "--json"}).out)["fields"]["field2"],
              "label 7");
  }
}

// Numbers alone look like any bytes; that nothing in the store fits its types tells.
TEST_F(RecoverTest, RecordsOfNumbersWhoseTypeWasLostAreDamageWhereThereAreTypes) {
  for (int i = 0; i < 20; ++i) Do("append", {"k" + std::to_string(i), "P x:%i4", std::to_string(i + 1)});
  WriteFile(store_ + "/meta_v5", "3#P x:%i4\n");
  EXPECT_EQ(Run("verify").status, 1);
  EXPECT_EQ(Run("export").status, 3);
  EXPECT_EQ(Recover().status, 1);
  // Where no file tells that there were types, it is a guess.
  ASSERT_EQ(std::remove((store_ + "/meta_v5").c_str()), 0);
  EXPECT_TRUE(Contains(Do("verify"), "note    meta_v5 at 0: 20 values look like records of the type 1"));
  EXPECT_EQ(Run("export").status, 3);
  EXPECT_EQ(Run("export", {"--raw"}).status, 0);
  EXPECT_EQ(Run("export", {"--limit", "5"}).status, 0) << "five values may be anything";
}

TEST_F(RecoverTest, PlainBytesAmongRecordsAreANote) {
  for (int i = 0; i < 3; ++i) Do("append", {"k" + std::to_string(i), "P x:%i4", std::to_string(i + 1)});
  Put("n", std::string("\1\0\2", 3));
  EXPECT_TRUE(
      Contains(Do("verify"), "note    meta_v5 at 0: 1 of 4 values of the type 1 does not hold the fields"));
  EXPECT_EQ(Run("export").status, 3) << "it may have been a record";
  const Ran skipped = Run("export", {"--skip-bad-records"});
  EXPECT_EQ(skipped.status, 0) << skipped.err;
  EXPECT_TRUE(Contains(skipped.err, "1 entry is no record of the type")) << skipped.err;
  EXPECT_EQ(Recover().status, 0);
}

TEST_F(RecoverTest, ValuesOfAStoreWithoutRecordsAreTakenForNone) {
  Put("a", "text");
  Put("b", std::string("\x01\x00\x02\x00\x00\x00", 6));
  EXPECT_EQ(Run("verify").status, 0);
  EXPECT_EQ(Recover().told["guessedTypes"].size(), 0u);
}

TEST_F(RecoverTest, RefusesANameThatIsTakenAndCleansUpAfterAKilledOne) {
  Put("a", "1");
  const std::string target = scratch_.PathOf("new");
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  const Ran taken = Run("recover", {target});
  EXPECT_EQ(taken.status, 3);
  EXPECT_TRUE(Contains(taken.err, "kStatusStoreExists")) << taken.err;
  ASSERT_EQ(rmdir(target.c_str()), 0);
  ASSERT_EQ(RunKestrun({"put", target + ".partial", "half", "done"}).status, 0);
  EXPECT_EQ(Run("recover", {target + "/"}).status, 0);
  EXPECT_EQ(RunKestrun({"scan", target}).out, "a  1\n");
  EXPECT_EQ(Run("recover", {scratch_.PathOf("no/such/new")}).status, 3);
}

TEST_F(RecoverTest, VerboseTellsTheFateOfEveryVersion) {
  Put("a", "old");
  Put("a", "new");
  const Ran ran = RunKestrun({"recover", store_, scratch_.PathOf("new"), "-v"});
  EXPECT_EQ(ran.status, 0);
  EXPECT_TRUE(Contains(ran.err, "taken  a  wal_v5 at ")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "dropped  a  wal_v5 at ")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "took 1 entry, dropped 1 version, could not read 0")) << ran.err;
}

}  // namespace
}  // namespace Kestrun
