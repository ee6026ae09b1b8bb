#include <filesystem>
#include <map>

#include "tests/inspect/forged_files.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class InspectCommandsTest : public ToolTest {
 protected:
  void FillStore() {
    Put("user-1", "one");
    Put("user-2", "two");
    Do("flush");
    Do("append", {"p", "Point x:%i4", "7"});
    ASSERT_EQ(Run("del", {"user-1"}).status, 0);
  }

  // Content and time of change of every file.
  std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> Files() {
    std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> files;
    for (const auto& entry : std::filesystem::directory_iterator(store_)) {
      files[entry.path()] = {ReadFile(entry.path()), entry.last_write_time()};
    }
    return files;
  }

  std::string BlockPath() {
    for (const auto& entry : std::filesystem::directory_iterator(store_)) {
      if (entry.path().extension() == ".blk_v5") return entry.path();
    }
    return std::string();
  }

  void Flip(const std::string& path, size_t offset) {
    std::string bytes = ReadFile(path);
    bytes[offset] = static_cast<char>(bytes[offset] ^ 1);
    WriteFile(path, bytes);
  }
};

TEST_F(InspectCommandsTest, ChangeNothing) {
  FillStore();
  const auto before = Files();
  for (const char* command : {"stat", "verify", "dump", "types"}) {
    EXPECT_EQ(Run(command).status, 0) << command;
    EXPECT_EQ(Run(command, {"--json"}).status, 0) << command;
    EXPECT_EQ(Files(), before) << command;
  }
}

TEST_F(InspectCommandsTest, WorkOnAStoreThatNobodyMayWrite) {
  FillStore();
  for (const auto& [path, content] : Files()) ASSERT_EQ(chmod(path.c_str(), 0400), 0);
  ASSERT_EQ(chmod(store_.c_str(), 0500), 0);
  EXPECT_EQ(Run("stat").status, 0);
  EXPECT_EQ(Run("verify").status, 0);
  EXPECT_EQ(Run("dump").status, 0);
  ASSERT_EQ(chmod(store_.c_str(), 0700), 0);
}

TEST_F(InspectCommandsTest, StatTellsLogAndBlocks) {
  FillStore();
  const nlohmann::json stat = DoJson("stat");
  EXPECT_EQ(stat["store"], store_);
  EXPECT_EQ(stat["log"]["fileSize"], 4 << 20);
  EXPECT_EQ(stat["log"]["used"], 128 + (40 + 1 + 6) + (40 + 6));
  EXPECT_EQ(stat["log"]["entries"], 2);
  EXPECT_EQ(stat["log"]["deletions"], 1);
  EXPECT_EQ(stat["manifest"]["generation"], 1);
  EXPECT_EQ(stat["recordTypes"], 1);
  ASSERT_EQ(stat["blocks"].size(), 1u);
  const nlohmann::json& block = stat["blocks"][0];
  EXPECT_EQ(block["entries"], 2);
  EXPECT_EQ(block["fileSize"], std::filesystem::file_size(BlockPath()));
  EXPECT_EQ(block["listed"], true);
  EXPECT_LE(block["oldest"].get<uint64_t>(), block["newest"].get<uint64_t>());
  EXPECT_EQ(block["name"].get<std::string>() + ".blk_v5", std::filesystem::path(BlockPath()).filename());

  const std::string text = Do("stat");
  EXPECT_TRUE(
      Contains(text, "log           221 of 4,194,304 bytes used, 2 records (1 deletion, 0 expired)\n"))
      << text;
  EXPECT_TRUE(Contains(text, "blocks        1 block, ")) << text;
  EXPECT_TRUE(Contains(text, block["name"].get<std::string>())) << text;
}

TEST_F(InspectCommandsTest, StatTellsHowBigAndWhy) {
  Put("user-1", "old");
  Put("user-2", "gone");
  Do("flush");
  Put("user-1", "new!");
  ASSERT_EQ(Run("del", {"user-2"}).status, 0);
  Do("flush");
  Do("append", {"point-1", "Point x:%i4", "7"});
  const nlohmann::json stat = DoJson("stat");
  EXPECT_EQ(stat["entries"],
            nlohmann::json({{"live", 2}, {"overwritten", 2}, {"deleted", 1}, {"expired", 0}}));
  EXPECT_EQ(stat["bytes"]["live"], 6 + 4 + 7 + 6);
  EXPECT_EQ(stat["bytes"]["overwritten"], 6 + 3 + 6 + 4);
  EXPECT_EQ(stat["types"], nlohmann::json::parse(R"([{"name":"Point x:%i4","entries":1,"bytes":13},
                                                    {"name":"","entries":1,"bytes":10}])"));
  EXPECT_EQ(stat["prefixes"], nlohmann::json::parse(R"([{"name":"point-","entries":1,"bytes":13},
                                                       {"name":"user-","entries":1,"bytes":10}])"));
  EXPECT_EQ(stat["blocks"][0]["firstKey"], "user-1");
  EXPECT_EQ(stat["blocks"][0]["lastKey"], "user-2");
  EXPECT_EQ(stat["blocks"][0]["overlaps"], 1);
  EXPECT_EQ(stat["blocks"][0]["hidden"], 2);
  EXPECT_TRUE(Contains(Do("stat"), "compacting pays")) << Do("stat");
}

TEST_F(InspectCommandsTest, ThePageOfStatNeedsNoOtherFileAndNothingInItIsTakenForMarkup) {
  Put("<script>-1", "value");
  Do("flush");
  const std::string path = scratch_.PathOf("page.html");
  EXPECT_EQ(Account("stat", {"--html", path}), "wrote " + path + "\n");
  const std::string page = ReadFile(path);
  for (const char* part : {"<!DOCTYPE html>", "name=\"viewport\"", "prefers-color-scheme: dark", "<svg ",
                           "Live entries", "&lt;script&gt;-", "</html>\n"}) {
    EXPECT_TRUE(Contains(page, part)) << part;
  }
  for (const char* part : {"<script", "http:", "https:", "src=", "@import", "url("}) {
    EXPECT_FALSE(Contains(page, part)) << part;
  }
  EXPECT_EQ(DoJson("stat", {"--html", path})["entries"]["live"], 1);
  EXPECT_EQ(Run("stat", {"--html", scratch_.PathOf("no/such/page.html")}).status, 3);
}

TEST_F(InspectCommandsTest, StatShowsADamagedStoreToo) {
  FillStore();
  Flip(store_ + "/wal_v5", 16);
  Flip(BlockPath(), 12);
  const std::string text = Do("stat");
  EXPECT_TRUE(Contains(text, "damaged: its header fails its checksum")) << text;
  EXPECT_TRUE(Contains(text, "damaged: its headers are damaged")) << text;
}

TEST_F(InspectCommandsTest, VerifyTellsASoundStore) {
  FillStore();
  EXPECT_EQ(Do("verify"), "sound: looked at 2 records in the log, 1 block with 2 entries, 1 record type\n");
  EXPECT_EQ(Do("verify", {"--json"}),
            "{\"sound\":true,\"damages\":0,\"notes\":0,\"logRecords\":2,\"blocks\":1,\"blockEntries\":2,"
            "\"recordTypes\":1,\"findings\":[]}\n");
}

TEST_F(InspectCommandsTest, VerifyListsDamageAndGivesOne) {
  FillStore();
  Flip(BlockPath(), 12);
  Flip(store_ + "/wal_v5", 130);
  const Ran ran = Run("verify");
  EXPECT_EQ(ran.status, 1);
  EXPECT_TRUE(Contains(ran.err, "kestrun recover")) << ran.err;
  EXPECT_TRUE(Contains(ran.out, "damage  wal_v5 at 128: the record fails its checksum")) << ran.out;
  EXPECT_TRUE(Contains(ran.out, ".blk_v5 at 12: the header fails its checksum\n")) << ran.out;
  EXPECT_TRUE(Contains(ran.out, "2 damages: looked at ")) << ran.out;
  const Ran json = Run("verify", {"--json"});
  EXPECT_EQ(json.status, 1);
  const nlohmann::json report = nlohmann::json::parse(json.out);
  EXPECT_EQ(report["sound"], false);
  EXPECT_EQ(report["damages"], 2);
  EXPECT_EQ(report["findings"][0]["file"], "wal_v5");
  EXPECT_EQ(report["findings"][0]["offset"], 128);
  EXPECT_EQ(report["findings"][0]["severity"], "damage");
}

TEST_F(InspectCommandsTest, VerifyGivesZeroForNotes) {
  FillStore();
  const std::string left = store_ + "/" + ForgedName('Z') + ".blk_v5";
  WriteFile(left, ReadFile(BlockPath()));
  const Ran ran = Run("verify");
  EXPECT_EQ(ran.status, 0) << ran.out;
  EXPECT_TRUE(Contains(ran.out, "note    " + ForgedName('Z') + ".blk_v5 at 0: not in the manifest"))
      << ran.out;
}

TEST_F(InspectCommandsTest, ThePageSizeCanBeGiven) {
  Put("make", "a store");
  WriteFile(store_ + "/" + ForgedName('A') + ".blk_v5", ForgedBlock({{"k", "v"}}, 65536));
  WriteFile(store_ + "/manifest_v5", ForgedManifest({{ForgedName('A'), ForgedFilter({"k"})}}));
  EXPECT_EQ(Run("verify", {"--page-size", "4096"}).status, 1);
  EXPECT_EQ(Run("verify").status, 0) << "and is found out where it is not given";
  EXPECT_EQ(Run("verify", {"--page-size", "64K"}).status, 0);
  EXPECT_EQ(DoJson("stat", {"--page-size", "65536"})["blocks"][0]["entries"], 1);
}

TEST_F(InspectCommandsTest, DumpShowsEveryFileOfAStoreAndAnyFileAlone) {
  FillStore();
  const std::string all = Do("dump");
  for (const char* part : {"wal_v5: log, 4194304 bytes\nheader:\n", "manifest_v5: manifest, ",
                           "meta_v5: schema, 14 bytes", ".blk_v5: block, ", "record 2, a deletion:\n",
                           "key table:\n", "entry 1:\n", "|1#Point x:%i4   |  line: record type 1\n"}) {
    EXPECT_TRUE(Contains(all, part)) << part;
  }
  const Ran one = RunKestrun({"dump", BlockPath()});
  EXPECT_EQ(one.status, 0);
  EXPECT_TRUE(Contains(one.out, "0000009c  6f 6e 65 74 77 6f") || Contains(one.out, "0000009c  6f 6e 65 "))
      << one.out;
  EXPECT_TRUE(Contains(all, one.out));
}

TEST_F(InspectCommandsTest, DumpWritesOneJsonObjectForEachField) {
  FillStore();
  std::map<std::string, uint64_t> sizes;
  std::istringstream lines(Do("dump", {"--json"}));
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json field = nlohmann::json::parse(line);
    EXPECT_EQ(field["offset"], sizes[field["file"]]) << line;
    sizes[field["file"]] += field["size"].get<uint64_t>();
    if (field.contains("hex")) {
      EXPECT_EQ(field["hex"].get<std::string>().size(), 2 * field["size"].get<size_t>());
    }
  }
  EXPECT_EQ(sizes.size(), 4u);
  for (const auto& [file, size] : sizes) EXPECT_EQ(size, std::filesystem::file_size(file)) << file;
}

TEST_F(InspectCommandsTest, DumpOfAFileThatIsNotThereIsRefused) {
  const Ran ran = RunKestrun({"dump", scratch_.PathOf("missing")});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.out, "");
}

}  // namespace
}  // namespace Kestrun
