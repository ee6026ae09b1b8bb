#include "inspect/store_verify.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/inspect/store_fixture.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

constexpr size_t kVerifiedEntryTable = 8192;
constexpr size_t kVerifiedFirstEntry = kVerifiedEntryTable + 28;

class StoreVerifyTest : public ForgedStore {
 protected:
  VerifyReport Verify(uint64_t pageSize = kPage) {
    VerifyReport report;
    std::string why;
    EXPECT_TRUE(VerifyStore(Path(), pageSize, kNow, &report, &why)) << why;
    return report;
  }

  // "file at offset: text" of the only finding of this severity.
  std::string Only(Severity severity, const VerifyReport& report) {
    std::string found;
    for (const Finding& finding : report.findings) {
      if (finding.severity != severity) continue;
      EXPECT_EQ(found, "") << "there is a second finding: " << finding.text;
      found = finding.file + " at " + std::to_string(finding.offset) + ": " + finding.text;
    }
    return found;
  }
  std::string OnlyDamage() { return Only(Severity::Damage, Verify()); }
  std::string OnlyNote() {
    const VerifyReport report = Verify();
    EXPECT_TRUE(report.Sound());
    return Only(Severity::Note, report);
  }

  void Flip(const std::string& name, size_t offset) {
    std::string bytes = Bytes(name);
    bytes[offset] = static_cast<char>(bytes[offset] ^ 0x10);
    Put(name, bytes);
  }

  // Changes a field of an entry of the block and makes its checksum right again.
  void SetInEntry(size_t index, size_t field, uint32_t number) {
    std::string bytes = Bytes(block_);
    const size_t entry = kVerifiedFirstEntry + 48 * index;
    Set32(&bytes, entry + field, number);
    Reseal(&bytes, entry, entry + 40);
    Put(block_, bytes);
  }
};

TEST_F(StoreVerifyTest, FindsNothingInASoundStore) {
  const VerifyReport report = Verify();
  EXPECT_TRUE(report.Sound());
  EXPECT_TRUE(report.findings.empty());
  EXPECT_EQ(report.logRecords, 2u);
  EXPECT_EQ(report.blocks, 1u);
  EXPECT_EQ(report.blockEntries, 3u);
  EXPECT_EQ(report.recordTypes, 1u);
}

TEST_F(StoreVerifyTest, ChangesNothing) {
  Flip("wal_v5", 140);
  Verify();
  for (const auto& [name, bytes] : files_) EXPECT_EQ(ReadFile(scratch_.PathOf(name)), bytes) << name;
}

TEST_F(StoreVerifyTest, NeedsADirectoryWithALogOrAManifest) {
  VerifyReport report;
  std::string why;
  EXPECT_FALSE(VerifyStore(scratch_.PathOf("missing"), kPage, kNow, &report, &why));
  EXPECT_FALSE(VerifyStore(ScratchDirectory().Path(), kPage, kNow, &report, &why));
  EXPECT_EQ(why, "the directory holds neither a log nor a manifest");
}

TEST_F(StoreVerifyTest, SeesEachFlippedByteThatAChecksumCovers) {
  struct Range {
    std::string file;
    size_t start;
    size_t size;
  };
  const Range ranges[] = {{"wal_v5", 0, 20},
                          {"wal_v5", 128, 40},
                          {"wal_v5", 128 + 56, 40},
                          {"manifest_v5", 0, 24},
                          {"manifest_v5", 128, 56},
                          {block_, 0, 16},
                          {block_, 128, 28},
                          {block_, 4096, 28},
                          {block_, kVerifiedEntryTable, 28},
                          {block_, kVerifiedFirstEntry, 44},
                          {block_, kVerifiedFirstEntry + 96, 44}};
  for (const Range& range : ranges) {
    const std::string good = Bytes(range.file);
    for (size_t i = range.start; i < range.start + range.size; ++i) {
      Flip(range.file, i);
      EXPECT_FALSE(Verify().Sound()) << range.file << " " << i;
      Put(range.file, good);
    }
  }
}

TEST_F(StoreVerifyTest, SeesEachFileCutShort) {
  for (const std::string& name : {std::string("wal_v5"), std::string("manifest_v5"), block_}) {
    const std::string good = Bytes(name);
    const size_t whole = name == "wal_v5" ? 128 + 56 + 46 : good.size();
    for (size_t size = 0; size < whole; size += size < 300 || size > 8100 ? 1 : 211) {
      // What is cut off behind a manifest's header is not to be told from a store without blocks, but for
      // the block that is left over.
      Put(name, good.substr(0, size));
      EXPECT_FALSE(Verify().Sound()) << name << " " << size;
    }
    Put(name, good);
  }
}

TEST_F(StoreVerifyTest, TellsWhichFileIsMissing) {
  Remove("wal_v5");
  EXPECT_EQ(OnlyDamage(), "wal_v5 at 0: the file is missing");
  Put("wal_v5", Bytes("wal_v5"));
  Remove(block_);
  EXPECT_EQ(OnlyDamage(), "manifest_v5 at 128: " + block_ + " is listed and missing");
}

// In a process of somebody who may not read the file.
TEST_F(StoreVerifyTest, AFileThatMayNotBeReadIsNoDamage) {
  ASSERT_EQ(chmod(Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(scratch_.PathOf(block_).c_str(), 0), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (geteuid() == 0 && setuid(65534) != 0) _exit(1);
    VerifyReport report;
    std::string why;
    if (!VerifyStore(Path(), kPage, kNow, &report, &why)) _exit(2);
    if (report.denied != block_ + ": " + std::strerror(EACCES)) _exit(3);
    _exit(report.Sound() ? 0 : 4);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(StoreVerifyTest, ChecksTheLogsUsedArea) {
  const std::string good = Bytes("wal_v5");
  const struct {
    uint32_t used;
    const char* damage;
  } rows[] = {{127, "wal_v5 at 12: the used area ends at 127, inside the header"},
              {1025, "wal_v5 at 12: the used area ends at 1025, behind the file's end at 1024"},
              {240, "wal_v5 at 230: 10 bytes of the used area are not a record"},
              {229, "wal_v5 at 12: the used area ends at 229, inside the record that ends at 230"},
              {271,
               "wal_v5 at 230: the record fails its checksum; nothing from here to the end of the used area "
               "at 271 is readable"}};
  for (const auto& row : rows) {
    std::string bytes = good;
    Set32(&bytes, 12, row.used);
    Reseal(&bytes, 0, 16);
    Put("wal_v5", bytes);
    const VerifyReport report = Verify();
    ASSERT_FALSE(report.findings.empty()) << row.used;
    EXPECT_EQ(report.findings[0].file + " at " + std::to_string(report.findings[0].offset) + ": " +
                  report.findings[0].text,
              row.damage);
  }
}

TEST_F(StoreVerifyTest, ChecksWhereALogRecordPointsTo) {
  std::string bytes = Bytes("wal_v5");
  Set32(&bytes, 128, 100);
  Reseal(&bytes, 128, 164);
  Put("wal_v5", bytes);
  EXPECT_EQ(OnlyDamage(),
            "wal_v5 at 128: the record of \"user-3\" points to a value at 100 where its own lies at 174");
}

TEST_F(StoreVerifyTest, WarnsOfKeysThatAFlushDrops) {
  Put("wal_v5", ForgedLog({{"a", "1"}, {"\xFF\x01", "2"}}));
  EXPECT_EQ(OnlyNote(),
            "wal_v5 at 170: 1 record has a key that begins with the byte 0xFF, which the next flush drops");
}

TEST_F(StoreVerifyTest, TellsFilesOfAnotherKindOrVersion) {
  std::string bytes = Bytes("wal_v5");
  Set32(&bytes, 8, 6);
  Reseal(&bytes, 0, 16);
  Put("wal_v5", bytes);
  EXPECT_EQ(OnlyDamage(), "wal_v5 at 8: the version is 6 and not 5");
  bytes[0] = 'X';
  Reseal(&bytes, 0, 16);
  Put("wal_v5", bytes);
  EXPECT_EQ(OnlyDamage(), "wal_v5 at 0: the file does not begin as a file of a store");
}

TEST_F(StoreVerifyTest, ChecksTheOrderOfKeys) {
  Put(block_, ForgedBlock({{"user", "1"}, {"user-2", "2"}, {"user-1", "3"}}));
  EXPECT_EQ(OnlyDamage(), block_ + " at " + std::to_string(kVerifiedFirstEntry + 96) +
                              ": entry 2, \"user-1\", is not behind \"user-2\" in the order of keys");
  Put(block_, ForgedBlock({{"user", "1"}, {"user-1", "2"}, {"user-1", "3"}}));
  EXPECT_FALSE(Verify().Sound()) << "a key may stand there once only";
}

TEST_F(StoreVerifyTest, ChecksThatEntriesPointIntoTheirSections) {
  const std::string good = Bytes(block_);
  const struct {
    size_t index;
    size_t field;
    uint32_t number;
    const char* damage;
  } rows[] = {{0, 0, 155, "entry 0 has a value outside the data section"},
              {2, 0, 165, "entry 2 has a value outside the data section"},
              {1, 4, 0xFFFFFFFF, "entry 1 has a value outside the data section"},
              {1, 0, 160, "entry 1 has a value that overlaps the one before"},
              {0, 32, 27, "entry 0 has a key outside the key table"},
              {0, 32, 0xFFFFFFF0, "entry 0 has a key outside the key table"},
              {2, 36, 0xFFFF, "entry 2 has a key outside the key table"},
              {1, 36, 0, "entry 1 has no key"},
              {1, 8, 1, "entry 1 is a deletion that carries a value"}};
  for (const auto& row : rows) {
    Put(block_, good);
    SetInEntry(row.index, row.field, row.number);
    const VerifyReport report = Verify();
    ASSERT_FALSE(report.findings.empty()) << row.damage;
    EXPECT_EQ(report.findings[0].text, row.damage);
  }
}

TEST_F(StoreVerifyTest, ListsEveryDamagedEntry) {
  Flip(block_, kVerifiedFirstEntry);
  Flip(block_, kVerifiedFirstEntry + 96);
  const VerifyReport report = Verify();
  ASSERT_EQ(report.damages, 2u);
  EXPECT_EQ(report.findings[0].text, "entry 0 fails its checksum");
  EXPECT_EQ(report.findings[1].text, "entry 2 fails its checksum");
}

TEST_F(StoreVerifyTest, TakesPaddingForWhatItIs) {
  std::string bytes = Bytes(block_);
  bytes[kVerifiedFirstEntry + 9] = 'x';
  bytes[kVerifiedFirstEntry + 28] = 'y';
  bytes[kVerifiedFirstEntry + 38] = 'z';
  Reseal(&bytes, kVerifiedFirstEntry, kVerifiedFirstEntry + 40);
  bytes[kVerifiedFirstEntry + 44] = '!';
  Put(block_, bytes);
  EXPECT_TRUE(Verify().Sound());
}

TEST_F(StoreVerifyTest, NotesBytesBehindABlock) {
  Put(block_, Bytes(block_) + "old");
  EXPECT_EQ(OnlyNote(), block_ + " at " + std::to_string(kVerifiedFirstEntry + 144) +
                            ": 3 bytes follow the entry table; nothing reads them");
}

TEST_F(StoreVerifyTest, TellsABlockOfAnotherPageSize) {
  Put(block_, ForgedBlock({{"user", "whole"}, {"user-1", "one"}, {"user-2", "two"}}, 16384));
  EXPECT_FALSE(Verify(4096).Sound());
  EXPECT_EQ(Only(Severity::Note, Verify(4096)),
            block_ + " at 0: the block was written with pages of 16384 bytes, not 4096");
  EXPECT_TRUE(Verify(16384).Sound());
}

TEST_F(StoreVerifyTest, ChecksThatTheFilterLetsKeysAndPrimariesThrough) {
  Put("manifest_v5", ForgedManifest({{name_, std::string(8, '\0') + '\5'}}));
  EXPECT_EQ(Verify().damages, 3u);
  // The keys without their primary, which is a key itself here.
  Put(block_, ForgedBlock({{"user-1", "one"}}));
  std::string filter(8, '\0');
  filter = ForgedFilter({"user-1"});
  Put("manifest_v5", ForgedManifest({{name_, filter}}));
  EXPECT_TRUE(Verify().Sound());
  Put(block_, ForgedBlock({{"other-1", "one"}}));
  EXPECT_FALSE(Verify().Sound());
  // Filters of no and of very many probes let everything through, one of a byte nothing.
  for (const std::string& all :
       {std::string("\0\0", 2), std::string("\0\x1F", 2), std::string("\0\xFF", 2)}) {
    Put("manifest_v5", ForgedManifest({{name_, all}}));
    EXPECT_TRUE(Verify().Sound());
  }
  Put("manifest_v5", ForgedManifest({{name_, "\5"}}));
  EXPECT_FALSE(Verify().Sound());
  Put("manifest_v5", ForgedManifest({{name_, ""}}));
  EXPECT_FALSE(Verify().Sound());
}

TEST_F(StoreVerifyTest, TellsAFilterThatHidesOnlyThePrimary) {
  // Of 64 bits, all are set but one that only the primary asks for.
  const std::string full(8, '\xFF');
  bool found = false;
  for (int bit = 0; bit < 64 && !found; ++bit) {
    std::string filter = full;
    filter[static_cast<size_t>(bit / 8)] =
        static_cast<char>(filter[static_cast<size_t>(bit / 8)] & ~(1 << bit % 8));
    Put(block_, ForgedBlock({{"user-1", "one"}}));
    Put("manifest_v5", ForgedManifest({{name_, filter + '\5'}}));
    const VerifyReport report = Verify();
    found =
        report.damages == 1 && report.findings[0].text == "the manifest's filter hides the primary \"user\"";
  }
  EXPECT_TRUE(found);
}

TEST_F(StoreVerifyTest, ChecksTheManifestsRecords) {
  const std::string filter = ForgedFilter({"user", "user-1", "user-2"});
  Put("manifest_v5", ForgedManifest({{name_, filter}, {name_, filter}}));
  EXPECT_EQ(OnlyDamage(), "manifest_v5 at " + std::to_string(128 + 56 + filter.size()) + ": " + block_ +
                              " is listed twice");
  Put("manifest_v5", ForgedManifest({{name_, filter}, {"../../../etc/passwd", filter}}));
  EXPECT_EQ(OnlyDamage(), "manifest_v5 at " + std::to_string(128 + 56 + filter.size()) +
                              ": \"../../../etc/passwd\" is not the name of a block");
  Put("manifest_v5", ForgedManifest({{name_, filter}}) + "torn");
  EXPECT_EQ(OnlyDamage(), "manifest_v5 at " + std::to_string(128 + 56 + filter.size()) +
                              ": the file ends inside a record, which readers pass over");
}

TEST_F(StoreVerifyTest, ChecksTheRecordTypes) {
  const struct {
    const char* schema;
    const char* damage;
  } rows[] = {
      {"1#T a:%i4\n2#U", "meta_v5 at 10: the last line, \"2#U\", has no end and is not read"},
      {"junk\n", "meta_v5 at 0: the line \"junk\" is not a record type"},
      {"1#T a:%i4#x\n", "meta_v5 at 0: the line \"1#T a:%i4#x\" is cut at its second '#'"},
      {"x#T a:%i4\n", "meta_v5 at 0: the id of \"x#T a:%i4\" is read as 0"},
      {"1#T a:%i4\n1#U b:%s\n",
       "meta_v5 at 10: id 1 stands for \"T a:%i4\" and for \"U b:%s\"; the later line wins"},
  };
  for (const auto& row : rows) {
    Put("meta_v5", row.schema);
    EXPECT_EQ(OnlyDamage(), row.damage);
  }
}

TEST_F(StoreVerifyTest, NotesFilesOfAnEarlierFormatAndPassesOverOthers) {
  Put("wal_v3", "old");
  EXPECT_EQ(OnlyNote(), "wal_v3 at 0: a file of an earlier format, which the next compaction removes");
  Remove("wal_v3");
  Put("notes.txt", "mine");
  EXPECT_TRUE(Verify().findings.empty());
}

TEST_F(StoreVerifyTest, DoesNotJudgeTheListOfBlocksWhileItIsBeingReplaced) {
  Put("manifest_v5", ForgedManifest({}));
  Put("manifest_v5.next", "whatever");
  EXPECT_EQ(OnlyNote().substr(0, 59), "manifest_v5.next at 0: a compaction was broken off; the nex");
}

class LeftoverBlockTest : public StoreVerifyTest {
 protected:
  const std::string left_ = ForgedName('Z') + ".blk_v5";
};

TEST_F(LeftoverBlockTest, IsHarmlessWhenItsEntriesStandInTheLog) {
  Put(left_, ForgedBlock({{"user-3", "in the log"}}));
  EXPECT_EQ(
      OnlyNote(),
      left_ + " at 0: not in the manifest; all that lives in it is also in the log or in a listed block");
}

TEST_F(LeftoverBlockTest, IsHarmlessWhenItsEntriesStandInAListedBlock) {
  Put(left_, ForgedBlock({{"user", "older", false, kForgedTime - 1}, {"user-2", "two"}}));
  EXPECT_TRUE(Verify().Sound());
}

TEST_F(LeftoverBlockTest, IsHarmlessWhenItIsNotComplete) {
  const std::string whole = ForgedBlock({{"lost", "data"}});
  for (const size_t size : {size_t{0}, size_t{100}, size_t{160}, size_t{4200}, whole.size() - 1}) {
    Put(left_, whole.substr(0, size));
    EXPECT_EQ(OnlyNote().substr(0, 71), left_ + " at 0: not in the manifest and no") << size;
  }
}

TEST_F(LeftoverBlockTest, IsDamageWhenItHoldsWhatNothingElseHolds) {
  Put(left_, ForgedBlock({{"user", "old", false, kForgedTime - 1}, {"user-9", "nine"}}));
  EXPECT_EQ(OnlyDamage(),
            left_ + " at " + std::to_string(kVerifiedFirstEntry + 48) +
                ": not in the manifest, and holds an entry of \"user-9\" that neither the log nor a "
                "listed block has");
  Put(left_, ForgedBlock({{"user", "newer", false, kForgedTime + 1}}));
  EXPECT_FALSE(Verify().Sound());
}

TEST_F(LeftoverBlockTest, IsHarmlessWhenWhatItHoldsIsDeletedOrExpired) {
  Put(left_, ForgedBlock({{"gone", "", true}, {"over", "x", false, kForgedTime, 99}}));
  EXPECT_TRUE(Verify().Sound());
  Put(left_, ForgedBlock({{"over", "x", false, kForgedTime, 100}}));
  EXPECT_FALSE(Verify().Sound());
}

TEST_F(LeftoverBlockTest, IsHarmlessWhenAnotherLeftoverDeletesWhatItHolds) {
  Put(left_, ForgedBlock({{"gone", "value"}}));
  Put(ForgedName('Y') + ".blk_v5", ForgedBlock({{"gone", "", true}}));
  EXPECT_TRUE(Verify().Sound());
}

TEST_F(LeftoverBlockTest, DoesNotVouchForAnotherOneThatHoldsTheSame) {
  Put(left_, ForgedBlock({{"lost", "value"}}));
  Put(ForgedName('Y') + ".blk_v5", ForgedBlock({{"lost", "value"}}));
  EXPECT_EQ(Verify().damages, 1u);
}

TEST_F(LeftoverBlockTest, LooksIntoMoreBlocksThanItKeepsOpen) {
  std::vector<ForgedRecord> records;
  std::vector<ForgedEntry> entries;
  for (int i = 0; i < 100; ++i) {
    std::string name = ForgedName('B');
    name[0] = static_cast<char>('0' + i / 10);
    name[1] = static_cast<char>('0' + i % 10);
    const std::string key = "key" + name.substr(0, 2);
    records.push_back({name, ForgedFilter({key})});
    entries.push_back({key, "v"});
    Put(name + ".blk_v5", ForgedBlock({{key, "v"}}));
  }
  Put("manifest_v5", ForgedManifest(records));
  Remove(block_);
  Put(left_, ForgedBlock(entries));
  EXPECT_TRUE(Verify().Sound());
}

TEST_F(StoreVerifyTest, KeepsOnlyTheFirstOfVeryManyFindings) {
  std::vector<ForgedEntry> entries(12000, ForgedEntry{"same", ""});
  Put(block_, ForgedBlock(entries));
  const VerifyReport report = Verify();
  EXPECT_GT(report.damages, 11000u);
  EXPECT_EQ(report.findings.size(), VerifyReport::kMaxFindings);
}

TEST_F(StoreVerifyTest, FingerprintChangesWithEveryWrite) {
  const std::string before = StoreFingerprint(Path());
  EXPECT_EQ(StoreFingerprint(Path()), before);
  const std::string log = Bytes("wal_v5");
  Put("wal_v5", ForgedLog({{"user-3", "in the log"}, {"user-1", "", true}, {"k", "v"}}, 1024));
  EXPECT_NE(StoreFingerprint(Path()), before);
  Put("wal_v5", log);
  EXPECT_EQ(StoreFingerprint(Path()), before);
  Put(ForgedName('N') + ".blk_v5", "");
  EXPECT_NE(StoreFingerprint(Path()), before);
}

}  // namespace
}  // namespace Kestrun::Inspect
