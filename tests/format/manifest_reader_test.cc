#include "format/manifest_reader.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"

namespace Kestrun {
namespace {

using namespace Testing;

class ManifestReaderTest : public ::testing::Test {
 protected:
  ManifestHeaderView HeaderOf(const std::string& bytes) {
    MemorySource source(bytes.data(), bytes.size());
    return ReadManifestHeader(source);
  }

  ManifestEnd Walk(const std::string& bytes, bool acceptAnyName = false) {
    MemorySource source(bytes.data(), bytes.size());
    ManifestReader reader(source, bytes.size());
    names_.clear();
    while (reader.Next(acceptAnyName)) names_.push_back(reader.Entry().name);
    EXPECT_EQ(reader.Entries(), names_.size());
    offset_ = reader.Offset();
    return reader.End();
  }

  std::vector<std::string> names_;
  uint64_t offset_ = 0;
  const std::string good_ =
      ForgedManifest({{ForgedName('A'), ForgedFilter({"a"})}, {ForgedName('B'), ForgedFilter({"b"})}});
};

TEST_F(ManifestReaderTest, ReadsTheEntriesOldestFirst) {
  EXPECT_EQ(Walk(good_), ManifestEnd::Complete);
  EXPECT_EQ(offset_, good_.size());
  EXPECT_EQ(names_, (std::vector<std::string>{ForgedName('A'), ForgedName('B')}));
}

TEST_F(ManifestReaderTest, TellsWhichPartOfTheHeaderIsWrong) {
  EXPECT_TRUE(HeaderOf(good_).Usable());
  EXPECT_EQ(HeaderOf(good_).header.generation, 2u);
  std::string bytes = good_;
  bytes[12] = static_cast<char>(bytes[12] ^ 1);
  EXPECT_FALSE(HeaderOf(bytes).checksumMatches);
  bytes = good_;
  bytes[7] = '!';
  Reseal(&bytes, 0, 20);
  EXPECT_FALSE(HeaderOf(bytes).magicMatches);
  EXPECT_FALSE(HeaderOf(good_.substr(0, 127)).complete);
}

TEST_F(ManifestReaderTest, TellsACutEntryFromACutFilter) {
  const size_t second = 128 + 56 + 9;
  EXPECT_EQ(Walk(good_.substr(0, second)), ManifestEnd::Complete);
  EXPECT_EQ(Walk(good_.substr(0, second + 55)), ManifestEnd::CutEntry);
  EXPECT_EQ(Walk(good_.substr(0, second + 56)), ManifestEnd::CutFilter);
  EXPECT_EQ(Walk(good_.substr(0, good_.size() - 1)), ManifestEnd::CutFilter);
  EXPECT_EQ(names_, std::vector<std::string>{ForgedName('A')});
}

TEST_F(ManifestReaderTest, StopsAtAnEntryThatFailsItsChecksum) {
  std::string bytes = good_;
  bytes[128 + 40] = static_cast<char>(bytes[128 + 40] ^ 1);
  EXPECT_EQ(Walk(bytes), ManifestEnd::BadChecksum);
  EXPECT_EQ(offset_, 128u);
  EXPECT_TRUE(names_.empty());
}

TEST_F(ManifestReaderTest, KnowsAnEntryWhoseBytesWereLostWithThePower) {
  const size_t second = 128 + 56 + 9;
  std::string bytes = good_;
  bytes.replace(second, bytes.size() - second, bytes.size() - second, '\0');
  EXPECT_EQ(Walk(bytes), ManifestEnd::TornEntry);
  EXPECT_EQ(offset_, second);
  EXPECT_TRUE(IsWholeList(ManifestEnd::TornEntry));
  bytes.back() = 'x';
  bytes[second + 1] = 'x';
  EXPECT_EQ(Walk(bytes), ManifestEnd::BadChecksum);
}

TEST_F(ManifestReaderTest, TakesNoFilterOfFourGibibytesForOne) {
  std::string bytes = good_;
  Set32(&bytes, 128 + 48, 0xFFFFFFFF);
  Reseal(&bytes, 128, 128 + 52);
  EXPECT_EQ(Walk(bytes), ManifestEnd::CutFilter);
}

TEST_F(ManifestReaderTest, KnowsTheNamesThatAStoreGives) {
  for (const std::string& plain : {ForgedName('A'), ForgedName('Z'), ForgedName('0'), ForgedName('9')}) {
    EXPECT_TRUE(IsBlockName(plain)) << plain;
  }
  for (const std::string& other :
       {std::string(), std::string(30, 'A'), std::string(32, 'A'), ForgedName('a'), ForgedName('/'),
        "../" + std::string(28, 'A'), std::string(30, 'A') + "."}) {
    EXPECT_FALSE(IsBlockName(other)) << other;
  }
}

TEST_F(ManifestReaderTest, ANameWithoutAnEndOrWithASlashEndsTheWalkUnlessItIsAskedFor) {
  std::string endless = good_;
  endless[128 + 31] = 'C';
  Reseal(&endless, 128, 128 + 52);
  EXPECT_EQ(Walk(endless), ManifestEnd::BadName);
  EXPECT_EQ(Walk(endless, true), ManifestEnd::Complete);
  EXPECT_EQ(names_.front(), ForgedName('A') + "C");

  std::string outside = good_;
  outside[128 + 3] = '/';
  Reseal(&outside, 128, 128 + 52);
  EXPECT_EQ(Walk(outside), ManifestEnd::BadName);
  EXPECT_EQ(Walk(outside, true), ManifestEnd::Complete);
}

TEST_F(ManifestReaderTest, HandsOutTheFilterUpToTheSizeThatIsAskedFor) {
  MemorySource source(good_.data(), good_.size());
  ManifestReader reader(source, good_.size());
  ASSERT_TRUE(reader.Next());
  ASSERT_TRUE(reader.Next());
  std::vector<uint8_t> filter;
  ASSERT_TRUE(reader.ReadFilter(&filter));
  EXPECT_EQ(std::string(filter.begin(), filter.end()), ForgedFilter({"b"}));
  EXPECT_TRUE(reader.ReadFilter(&filter, 9));
  EXPECT_FALSE(reader.ReadFilter(&filter, 8));
}

TEST(ManifestJournalReaderTest, ReadsWhatTheImageHoldsAndNothingThatWasChanged) {
  ManifestJournal journal;
  journal.generation = 4;
  journal.oldLength = 100;
  journal.oldHash = 0x1122334455667788;
  journal.entries = {1, 2, 3};
  const std::vector<uint8_t> image = ManifestJournalImage(journal);
  ASSERT_EQ(image.size(), 43u);

  ManifestJournal read;
  MemorySource source(image.data(), image.size());
  ASSERT_EQ(ReadManifestJournal(source, &read), JournalState::Complete);
  EXPECT_EQ(read.generation, 4u);
  EXPECT_EQ(read.oldLength, 100u);
  EXPECT_EQ(read.oldHash, 0x1122334455667788u);
  EXPECT_EQ(read.entries, journal.entries);

  for (size_t i = 0; i < image.size(); ++i) {
    std::vector<uint8_t> changed = image;
    changed[i] ^= 0x40;
    MemorySource damaged(changed.data(), changed.size());
    EXPECT_EQ(ReadManifestJournal(damaged, &read), JournalState::Incomplete) << i;
    MemorySource cut(image.data(), i);
    EXPECT_EQ(ReadManifestJournal(cut, &read), JournalState::Incomplete) << i;
  }
}

// The generation of the journal is 8. Its old entries are "old entries", its new ones "new ones".
TEST(ManifestJournalReaderTest, TheStateOfARewriteFollowsFromGenerationAndEntries) {
  const std::string old = "old entries";
  const std::string entries = "new ones";
  const std::string half = "new ontries";
  const struct {
    const char* what;
    uint32_t generation;  // of the manifest
    std::string bytes;
    RewriteState state;
  } rows[] = {
      {"an earlier list", 6, old, RewriteState::OtherList},
      {"an earlier list with the new entries", 6, entries, RewriteState::OtherList},
      {"a later list", 9, entries, RewriteState::OtherList},
      {"a later list with the old entries", 9, old, RewriteState::OtherList},
      {"a list from the other end of the numbers", 0xFFFFFFFF, old, RewriteState::OtherList},

      {"nothing was written", 7, old, RewriteState::NotBegun},
      {"the first byte was written", 7, "nld entries", RewriteState::Pending},
      {"half written", 7, half, RewriteState::Pending},
      {"written and not cut", 7, entries + "ies", RewriteState::Pending},
      {"the new entries, not published", 7, entries, RewriteState::Pending},
      {"the old ones and more", 7, old + "x", RewriteState::Pending},
      {"the old ones, cut", 7, "old entrie", RewriteState::Pending},
      {"empty", 7, "", RewriteState::Pending},

      {"published, and complete", 8, entries, RewriteState::Complete},
      {"published, and another block was recorded after the old ones", 8, old + "x",
       RewriteState::Superseded},
      {"published, and the old ones are still there", 8, old, RewriteState::Pending},
      {"published, and half written", 8, half, RewriteState::Pending},
      {"published, and not cut", 8, entries + "ies", RewriteState::Pending},
      {"published, and cut too short", 8, "new one", RewriteState::Pending},
      {"published, and empty", 8, "", RewriteState::Pending},
  };
  ManifestJournal journal;
  journal.generation = 8;
  journal.oldLength = old.size();
  journal.oldHash = ManifestJournalHash(old.data(), old.size());
  journal.entries.assign(entries.begin(), entries.end());
  for (const auto& row : rows) {
    EXPECT_EQ(ExamineRewrite(journal, row.generation, reinterpret_cast<const uint8_t*>(row.bytes.data()),
                             row.bytes.size()),
              row.state)
        << row.what;
  }
}

TEST(ManifestJournalReaderTest, ARewriteOfNothingOrToNothingHasItsStatesToo) {
  ManifestJournal journal;
  journal.generation = 0;  // the one after 0xFFFFFFFF
  journal.oldHash = ManifestJournalHash(nullptr, 0);
  EXPECT_EQ(ExamineRewrite(journal, 0xFFFFFFFF, nullptr, 0), RewriteState::NotBegun);
  EXPECT_EQ(ExamineRewrite(journal, 0, nullptr, 0), RewriteState::Complete);
  const uint8_t byte = 1;
  EXPECT_EQ(ExamineRewrite(journal, 0xFFFFFFFF, &byte, 1), RewriteState::Pending);
  EXPECT_EQ(ExamineRewrite(journal, 0, &byte, 1), RewriteState::Superseded);
}

}  // namespace
}  // namespace Kestrun
