#include "record/schema.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::CapturedStdout;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::WriteFile;

class SchemaTest : public testing::Test {
 protected:
  SchemaTest() : path_(directory_.PathOf("meta_v5")) {}

  std::unique_ptr<Schema> Open() {
    Schema* schema = nullptr;
    EXPECT_EQ(Schema::Open(path_, &schema), kStatusOk);
    return std::unique_ptr<Schema>(schema);
  }

  std::unique_ptr<Schema> OpenWith(const std::string& content) {
    WriteFile(path_, content);
    return Open();
  }

  void Append(const std::string& content) { WriteFile(path_, ReadFile(path_) + content); }
  std::string Content() const { return ReadFile(path_); }

  // The text of the type with this number, as one lookup finds it; "-" when there is none.
  static std::string TextOf(Schema& schema, uint16_t id) {
    const RecordMeta* meta = schema.FindRecordMeta(id);
    if (meta == nullptr) return "-";
    EXPECT_EQ(meta->id, id);
    return meta->text;
  }

  ScratchDirectory directory_;
  std::string path_;
};

TEST_F(SchemaTest, OpenCreatesAnEmptyFileForTheOwnerAlone) {
  const auto schema = Open();
  EXPECT_EQ(Content(), "");
  struct stat info = {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(SchemaTest, OpenWithoutAPlaceForTheSchemaDoesNothingAtAll) {
  EXPECT_EQ(Schema::Open(path_, nullptr), kStatusOk);
  struct stat info = {};
  EXPECT_NE(stat(path_.c_str(), &info), 0);
}

TEST_F(SchemaTest, OpenReportsAFileThatCannotBeOpened) {
  CapturedStdout output;
  Schema* schema = nullptr;
  EXPECT_EQ(Schema::Open(directory_.PathOf("missing/meta_v5"), &schema), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "Filed to open series meta file");
  EXPECT_EQ(Schema::Open(directory_.Path(), &schema), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "Filed to open series meta file");
  EXPECT_EQ(schema, nullptr);
}

TEST_F(SchemaTest, FirstTypeBecomesTheFirstLine) {
  const auto schema = Open();
  RecordMeta* meta = schema->GetOrCreateRecordMeta("T a:%i4");
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->id, 1);
  EXPECT_EQ(meta->text, "T a:%i4");
  EXPECT_EQ(meta->name, "T");
  EXPECT_EQ(meta->fields.size(), 1U);
  EXPECT_EQ(Content(), "1#T a:%i4\n");

  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), meta);
  EXPECT_EQ(schema->FindRecordMeta(1), meta);
  EXPECT_EQ(Content(), "1#T a:%i4\n");
}

TEST_F(SchemaTest, EveryOtherTextGetsTheNextNumber) {
  const auto schema = Open();
  EXPECT_EQ(schema->GetOrCreateRecordMeta("Point x:%i4,y:%i4")->id, 1);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("Note body:%s")->id, 2);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("Note body:%s,")->id, 3);
  EXPECT_EQ(Content(), "1#Point x:%i4,y:%i4\n2#Note body:%s\n3#Note body:%s,\n");
}

TEST_F(SchemaTest, TextWithoutABlankIsNoTypeAndTakesNoNumber) {
  const auto schema = Open();
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  for (const char* text : {"T", "", "T "}) EXPECT_EQ(schema->GetOrCreateRecordMeta(text), nullptr) << text;
  EXPECT_EQ(Content(), "1#T a:%i4\n");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 2);
}

TEST_F(SchemaTest, TypesAreFoundAgainAfterReopening) {
  Open()->GetOrCreateRecordMeta("T a:%i4");
  const auto schema = Open();
  EXPECT_EQ(TextOf(*schema, 1), "T a:%i4");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 2);
  EXPECT_EQ(Content(), "1#T a:%i4\n2#U a:%i4\n");
}

TEST_F(SchemaTest, LineThatSomebodyElseAppendedIsFoundByNumberAndByText) {
  const auto schema = Open();
  EXPECT_EQ(TextOf(*schema, 9), "-");
  Append("9#T a:%i4\n");
  EXPECT_EQ(TextOf(*schema, 9), "T a:%i4");
  Append("10#U a:%i4\n");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 10);
  EXPECT_EQ(Content(), "9#T a:%i4\n10#U a:%i4\n");
}

// What counts is how many texts are known, whatever their numbers are.
TEST_F(SchemaTest, NumbersAreGivenByCount) {
  const auto schema = OpenWith("7#T a:%i4\n2#U a:%i4\n7#V a:%i4\n");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("W a:%i4")->id, 4);
  const auto other = OpenWith("2#T a:%i4\n");
  EXPECT_EQ(other->GetOrCreateRecordMeta("U a:%i4")->id, 2);
  EXPECT_EQ(Content(), "2#T a:%i4\n2#U a:%i4\n");
  EXPECT_EQ(TextOf(*other, 2), "U a:%i4");
}

TEST_F(SchemaTest, LastLineWithoutItsEndIsNotRead) {
  const auto schema = OpenWith("1#T a:%i4\n2#U a:%i4");
  EXPECT_EQ(TextOf(*schema, 1), "T a:%i4");
  EXPECT_EQ(TextOf(*schema, 2), "-");
}

TEST_F(SchemaTest, NewLineBehindAnUnfinishedOneContinuesIt) {
  const auto schema = OpenWith("1#T a:%i4\n2#U a");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("V b:%s")->id, 2);
  EXPECT_EQ(Content(), "1#T a:%i4\n2#U a2#V b:%s\n");
  // Who made it knows it; everybody else reads what stands there.
  EXPECT_EQ(TextOf(*schema, 2), "V b:%s");
  const auto other = Open();
  EXPECT_EQ(TextOf(*other, 2), "U a2");
}

TEST_F(SchemaTest, EmptyLinesAndLinesThatAreNoTypesAreSkipped) {
  const auto schema = OpenWith("\n\n1#T a:%i4\n\njunk\n3#\n4##U a:%i4\n5#V\n6#W \n7#X a:%i4\n");
  EXPECT_EQ(TextOf(*schema, 1), "T a:%i4");
  EXPECT_EQ(TextOf(*schema, 7), "X a:%i4");
  for (const uint16_t id : std::vector<uint16_t>{0, 2, 3, 4, 5, 6}) EXPECT_EQ(TextOf(*schema, id), "-") << id;
  EXPECT_EQ(schema->GetOrCreateRecordMeta("Y a:%i4")->id, 3);
}

TEST_F(SchemaTest, NulEndsALineToo) {
  const auto schema =
      OpenWith(std::string("1#T a:%i4\0\0"
                           "2#U a:%i4\n3#V a:%i4\0",
                           31));
  EXPECT_EQ(TextOf(*schema, 1), "T a:%i4");
  EXPECT_EQ(TextOf(*schema, 2), "U a:%i4");
  EXPECT_EQ(TextOf(*schema, 3), "V a:%i4");
}

TEST_F(SchemaTest, WhatStandsBehindASecondHashIsDropped) {
  const auto schema = OpenWith("7#T a:%i4#x\n8#U a:%i4#x#y#\n");
  EXPECT_EQ(TextOf(*schema, 7), "T a:%i4");
  EXPECT_EQ(TextOf(*schema, 8), "U a:%i4");
}

TEST_F(SchemaTest, NumbersAreReadAsFarAsTheyGoAndCutTo16Bits) {
  const struct {
    const char* number;
    uint16_t id;
  } rows[] = {{"x", 0},      {"", 0},          {" 12", 12},      {"12abc", 12}, {"+5", 5},
              {"-1", 65535}, {"65535", 65535}, {"65536", 0},     {"65543", 7},  {"007", 7},
              {"-65535", 1}, {"0x10", 0},      {"4294967301", 5}};
  for (const auto& row : rows) {
    const auto schema = OpenWith(std::string(row.number) + "#T a:%i4\n");
    EXPECT_EQ(TextOf(*schema, row.id), "T a:%i4") << row.number;
  }
}

TEST_F(SchemaTest, LaterLineWithTheSameNumberOrTheSameTextWins) {
  const auto schema = OpenWith("1#T a:%i4\n1#U a:%i4\n2#V a:%i4\n3#V a:%i4\n");
  EXPECT_EQ(TextOf(*schema, 1), "U a:%i4");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4")->id, 1);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("V a:%i4")->id, 3);
  EXPECT_EQ(TextOf(*schema, 2), "V a:%i4");
}

// The file is read in pieces of 1024 bytes: lines end before, at and after each of their ends.
TEST_F(SchemaTest, LinesMayLieAcrossTheEndOfWhatIsReadAtOnce) {
  for (size_t length = 1008; length <= 1040; ++length) {
    const std::string text = "T " + std::string(length, 'n') + ":%i4";
    const auto schema = OpenWith("1#" + text + "\n2#U a:%i4\n");
    EXPECT_EQ(TextOf(*schema, 1), text);
    EXPECT_EQ(TextOf(*schema, 2), "U a:%i4");
  }
  const std::string large = "T " + std::string(100000, 'n') + ":%i4";
  EXPECT_EQ(TextOf(*OpenWith("1#" + large + "\n"), 1), large);
}

TEST_F(SchemaTest, NumbersGoOnBehind65535InTheFileAndWrapInTheRecords) {
  std::string content;
  for (int i = 1; i <= 65535; ++i) content += std::to_string(i) + "#T f" + std::to_string(i) + ":%i4\n";
  const auto schema = OpenWith(content);
  EXPECT_EQ(TextOf(*schema, 65535), "T f65535:%i4");

  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 0);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("V a:%i4")->id, 1);
  EXPECT_EQ(Content(), content + "65536#U a:%i4\n65537#V a:%i4\n");
  EXPECT_EQ(TextOf(*schema, 0), "U a:%i4");
  EXPECT_EQ(TextOf(*schema, 1), "V a:%i4");
  EXPECT_EQ(TextOf(*Open(), 1), "V a:%i4");
}

TEST_F(SchemaTest, TextWithAHashIsWrittenAsItIsAndReadAsSomethingElse) {
  const auto schema = Open();
  RecordMeta* meta = schema->GetOrCreateRecordMeta("T a:%i4#x");
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->id, 1);
  EXPECT_EQ(Content(), "1#T a:%i4#x\n");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4#x"), meta);
  EXPECT_EQ(TextOf(*Open(), 1), "T a:%i4");
  // After it was read back there are two texts, and the next number is 3 here but 2 elsewhere.
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 3);
  EXPECT_EQ(Content(), "1#T a:%i4#x\n3#U a:%i4\n");
}

TEST_F(SchemaTest, TextWithALineBreakIsWrittenAsItIsAndReadAsSomethingElse) {
  const auto schema = Open();
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4,\nb:%s")->fields.size(), 2U);
  EXPECT_EQ(Content(), "1#T a:%i4,\nb:%s\n");
  EXPECT_EQ(TextOf(*Open(), 1), "T a:%i4,");
}

TEST_F(SchemaTest, RecordTypesStayWhereTheyAreWhenTheFileIsReadAgain) {
  const auto schema = Open();
  RecordMeta* meta = schema->GetOrCreateRecordMeta("T a:%i4");
  EXPECT_TRUE(schema->Load());
  EXPECT_EQ(schema->FindRecordMeta(77), nullptr);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), meta);
  EXPECT_EQ(schema->FindRecordMeta(1), meta);
  EXPECT_EQ(Open()->FindRecordMeta(1), meta);
}

TEST_F(SchemaTest, FilesDoNotShareTheirRecordTypes) {
  const auto schema = OpenWith("1#T a:%i4\n");
  const std::string otherPath = directory_.PathOf("other");
  WriteFile(otherPath, "1#T a:%i4\n");
  Schema* opened = nullptr;
  ASSERT_EQ(Schema::Open(otherPath, &opened), kStatusOk);
  const std::unique_ptr<Schema> other(opened);

  RecordMeta* meta = schema->FindRecordMeta(1);
  ASSERT_NE(meta, nullptr);
  meta->name = "changed";
  meta->fields[0]->type = ValueType::Int64;
  EXPECT_NE(other->FindRecordMeta(1), meta);
  EXPECT_EQ(other->FindRecordMeta(1)->name, "T");
  EXPECT_EQ(other->FindRecordMeta(1)->fields[0]->type, ValueType::Int32);
  EXPECT_EQ(Open()->FindRecordMeta(1), meta);
}

TEST_F(SchemaTest, RecordTypesAreTheSameObjectsAfterTheFileWasClosedAndOpened) {
  auto schema = OpenWith("1#T a:%i4\n");
  const RecordMeta* meta = schema->FindRecordMeta(1);
  const RecordMeta* made = schema->GetOrCreateRecordMeta("U a:%i4");
  for (int i = 0; i < 3; ++i) {
    schema.reset();
    schema = Open();
    EXPECT_EQ(schema->FindRecordMeta(1), meta);
    EXPECT_EQ(schema->FindRecordMeta(2), made);
  }
}

// A file keeps its inode number when it is written over, as a new file may get that of one that was deleted.
TEST_F(SchemaTest, AnotherFileUnderTheSameNumberDoesNotGetTheRecordTypesOfTheOneBefore) {
  auto schema = OpenWith("1#T a:%i4\n");
  RecordMeta* meta = schema->FindRecordMeta(1);
  meta->name = "changed";
  schema.reset();
  WriteFile(path_, "1#T a:%i4\n2#U a:%i4\n");
  schema = Open();
  EXPECT_NE(schema->FindRecordMeta(1), meta);
  EXPECT_EQ(schema->FindRecordMeta(1)->name, "T");
  EXPECT_EQ(meta->name, "changed");

  const RecordMeta* second = schema->FindRecordMeta(1);
  ASSERT_EQ(unlink(path_.c_str()), 0);
  schema.reset();
  schema = OpenWith("1#T a:%i4\n");
  EXPECT_NE(schema->FindRecordMeta(1), second);
}

TEST_F(SchemaTest, RecordTypesOutliveTheirSchemaAndTheLineThatReplacesTheirs) {
  auto schema = OpenWith("1#T a:%i4\n");
  const RecordMeta* meta = schema->FindRecordMeta(1);
  Append("1#U a:%i4\n");
  EXPECT_TRUE(schema->Load());
  EXPECT_EQ(TextOf(*schema, 1), "U a:%i4");
  schema.reset();
  EXPECT_EQ(meta->text, "T a:%i4");
  EXPECT_EQ(meta->fields.at(0)->name, "a");
}

TEST_F(SchemaTest, ReadingAgainForgetsNothing) {
  const auto schema = OpenWith("1#T a:%i4\n");
  WriteFile(path_, "");
  EXPECT_TRUE(schema->Load());
  EXPECT_EQ(TextOf(*schema, 1), "T a:%i4");
  EXPECT_EQ(schema->GetOrCreateRecordMeta("U a:%i4")->id, 2);
  EXPECT_EQ(Content(), "2#U a:%i4\n");
}

TEST_F(SchemaTest, ADeviceInPlaceOfTheFileIsNotReadForEver) {
  ASSERT_EQ(symlink("/dev/zero", path_.c_str()), 0);
  const auto schema = Open();
  EXPECT_EQ(schema->FindRecordMeta(1), nullptr);
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
}

TEST_F(SchemaTest, APipeInPlaceOfTheFileHoldsNoTypes) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const auto schema = Open();
  EXPECT_FALSE(schema->Load());
  EXPECT_EQ(schema->GetOrCreateRecordMeta("T a:%i4"), nullptr);
}

}  // namespace
}  // namespace Kestrun
