#include "inspect/manifest_file.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class ManifestFileTest : public ::testing::Test {
 protected:
  ReadOnlyFile Open(const std::string& bytes) {
    WriteFile(scratch_.PathOf("manifest_v5"), bytes);
    std::string why;
    auto file = ReadOnlyFile::Open(scratch_.PathOf("manifest_v5"), &why);
    EXPECT_TRUE(file) << why;
    return std::move(*file);
  }

  ManifestScan Scan(const std::string& bytes) {
    const ReadOnlyFile file = Open(bytes);
    names_.clear();
    return ScanManifest(file, [this](const ManifestRecordView& record) {
      names_.push_back(record.name);
      return true;
    });
  }

  ScratchDirectory scratch_;
  std::vector<std::string> names_;
  const std::string good_ =
      ForgedManifest({{ForgedName('A'), ForgedFilter({"a"})}, {ForgedName('B'), ForgedFilter({"b"})}});
};

TEST_F(ManifestFileTest, ReadsTheRecordsOldestFirst) {
  const ManifestScan scan = Scan(good_);
  EXPECT_EQ(scan.end, ManifestEnd::Complete);
  EXPECT_EQ(scan.records, 2u);
  EXPECT_EQ(scan.endOffset, good_.size());
  EXPECT_EQ(names_, (std::vector<std::string>{ForgedName('A'), ForgedName('B')}));
}

TEST_F(ManifestFileTest, TellsWhichPartOfTheHeaderIsWrong) {
  EXPECT_TRUE(ReadManifestHeader(Open(good_)).Usable());
  EXPECT_EQ(ReadManifestHeader(Open(good_)).header.generation, 2u);
  std::string bytes = good_;
  bytes[12] = static_cast<char>(bytes[12] ^ 1);
  EXPECT_FALSE(ReadManifestHeader(Open(bytes)).checksumMatches);
  bytes = good_;
  bytes[7] = '!';
  Reseal(&bytes, 0, 20);
  EXPECT_FALSE(ReadManifestHeader(Open(bytes)).magicMatches);
  EXPECT_FALSE(ReadManifestHeader(Open(good_.substr(0, 127))).complete);
}

TEST_F(ManifestFileTest, TellsATornRecordFromACutFilter) {
  const size_t second = 128 + 56 + 9;
  EXPECT_EQ(Scan(good_.substr(0, second)).end, ManifestEnd::Complete);
  EXPECT_EQ(Scan(good_.substr(0, second + 55)).end, ManifestEnd::TornRecord);
  EXPECT_EQ(Scan(good_.substr(0, second + 56)).end, ManifestEnd::CutFilter);
  EXPECT_EQ(Scan(good_.substr(0, good_.size() - 1)).end, ManifestEnd::CutFilter);
  EXPECT_EQ(names_, std::vector<std::string>{ForgedName('A')});
}

TEST_F(ManifestFileTest, StopsAtARecordThatFailsItsChecksum) {
  std::string bytes = good_;
  bytes[128 + 40] = static_cast<char>(bytes[128 + 40] ^ 1);
  const ManifestScan scan = Scan(bytes);
  EXPECT_EQ(scan.end, ManifestEnd::BadChecksum);
  EXPECT_EQ(scan.endOffset, 128u);
  EXPECT_TRUE(names_.empty());
}

TEST_F(ManifestFileTest, TakesNoFilterOfFourGibibytesForOne) {
  std::string bytes = good_;
  Set32(&bytes, 128 + 48, 0xFFFFFFFF);
  Reseal(&bytes, 128, 128 + 52);
  EXPECT_EQ(Scan(bytes).end, ManifestEnd::CutFilter);
}

TEST_F(ManifestFileTest, KnowsTheNamesThatAStoreGives) {
  ManifestRecordView record;
  for (const std::string& plain : {ForgedName('A'), ForgedName('Z'), ForgedName('0'), ForgedName('9')}) {
    record.name = plain;
    EXPECT_TRUE(record.IsValidName()) << plain;
  }
  for (const std::string& other :
       {std::string(), std::string(30, 'A'), std::string(32, 'A'), ForgedName('a'), ForgedName('/'),
        "../" + std::string(28, 'A'), std::string(30, 'A') + "."}) {
    record.name = other;
    EXPECT_FALSE(record.IsValidName()) << other;
  }
}

TEST_F(ManifestFileTest, ReadsANameWithoutANulToTheEndOfItsField) {
  std::string bytes = good_;
  bytes[128 + 31] = 'C';
  Reseal(&bytes, 128, 128 + 52);
  Scan(bytes);
  EXPECT_EQ(names_.front(), ForgedName('A') + "C");
}

TEST_F(ManifestFileTest, HandsOutTheFilter) {
  const ReadOnlyFile file = Open(good_);
  std::vector<uint8_t> filter;
  ScanManifest(file, [&](const ManifestRecordView& record) { return ReadFilter(file, record, &filter); });
  const std::string expected = ForgedFilter({"b"});
  EXPECT_EQ(std::string(filter.begin(), filter.end()), expected);
}

}  // namespace
}  // namespace Kestrun::Inspect
