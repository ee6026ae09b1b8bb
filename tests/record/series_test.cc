#include "kestrun/series.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/status.h"
#include "record/schema.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/fake_clock.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::CapturedStdout;
using Testing::FakeClock;
using Testing::FromHex;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::ToHex;
using Testing::WriteFile;

constexpr SeriesConfig kConfig = {64 * 1024, 0};
constexpr char kMissingMeta[] = "Append record error, reason: record meta is nullptr";

std::unique_ptr<Series> OpenSeries(const std::string& path) {
  Series* series = nullptr;
  EXPECT_EQ(Series::Open(path, kConfig, &series), kStatusOk);
  return std::unique_ptr<Series>(series);
}

// A series whose engine and schema the test can reach too.
class SeriesTest : public testing::Test {
 protected:
  SeriesTest() : path_(directory_.PathOf("store")) {
    LSDBImpl* engine = nullptr;
    EXPECT_EQ(LSDBImpl::Open(path_, LSDBConfig{kConfig.walSize, 0}, &engine), kStatusOk);
    engine_.reset(engine);
    Schema* schema = nullptr;
    EXPECT_EQ(Schema::Open(SchemaPath(), &schema), kStatusOk);
    schema_.reset(schema);
    series_ = std::make_unique<Series>(schema_, engine_);
  }

  std::string SchemaPath() const { return path_ + "/meta_v5"; }

  // The record under `key`; null when Get returns another status or no record.
  std::unique_ptr<Record> Get(const Key& key) {
    Record* record = nullptr;
    EXPECT_EQ(series_->Get(key, &record), kStatusOk);
    return std::unique_ptr<Record>(record);
  }

  // The stored bytes.
  std::string StoredHex(const Key& key) {
    const void* value = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(engine_->Get(key, &value, &size), kStatusOk);
    std::string bytes(static_cast<const char*>(value), size);
    std::free(const_cast<void*>(value));
    return ToHex(bytes);
  }

  void Store(const Key& key, const std::string& hex) {
    const std::string bytes = FromHex(hex);
    EXPECT_EQ(engine_->Insert(key, 60, bytes.data(), static_cast<unsigned int>(bytes.size())), kStatusOk);
  }

  ScratchDirectory directory_;
  std::string path_;
  std::shared_ptr<LSDBImpl> engine_;
  std::shared_ptr<Schema> schema_;
  std::unique_ptr<Series> series_;
};

TEST_F(SeriesTest, RecordComesBackWithItsFields) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4,b:%s", 7, "hi"), kStatusOk);
  EXPECT_EQ(StoredHex("k"), "01 00 07 00 00 00 02 00 00 00 68 69");
  EXPECT_EQ(ReadFile(SchemaPath()), "1#T a:%i4,b:%s\n");

  const auto record = Get("k");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("a").type, ValueType::Int32);
  EXPECT_EQ(record->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(record->GetValue("b").type, ValueType::String);
  EXPECT_EQ(record->GetValue("b").str, "hi");
}

TEST_F(SeriesTest, EveryTypeComesBackFromArgumentsAndFromValues) {
  const char* format = "T i:%i4,l:%i8,f:%f,d:%d,s:%s";
  EXPECT_EQ(series_->AppendRecord("arguments", 60, format, -1, 1L << 40, 1.5, 0.1, "text"), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("values", 60, format,
                                  std::vector<Value>{Value::Int32Value(-1), Value::Int64Value(1L << 40),
                                                     Value::FloatValue(1.5F), Value::DoubleValue(0.1),
                                                     Value::StringValue("text")}),
            kStatusOk);
  EXPECT_EQ(StoredHex("arguments"), StoredHex("values"));
  const auto record = Get("values");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("i").numeric.i32, -1);
  EXPECT_EQ(record->GetValue("l").numeric.i64, 1L << 40);
  EXPECT_EQ(record->GetValue("f").numeric.f32, 1.5F);
  EXPECT_EQ(record->GetValue("d").numeric.f64, 0.1);
  EXPECT_EQ(record->GetValue("s").str, "text");
}

TEST_F(SeriesTest, MissingKeyLeavesTheOutPointerAsItWas) {
  auto* const untouched = reinterpret_cast<Record*>(this);
  Record* record = untouched;
  EXPECT_EQ(series_->Get("never written", &record), kStatusOk);
  EXPECT_EQ(record, untouched);

  EXPECT_EQ(series_->AppendRecord("deleted", 60, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(series_->Delete("deleted"), kStatusOk);
  EXPECT_EQ(series_->Get("deleted", &record), kStatusOk);
  EXPECT_EQ(record, untouched);
}

TEST_F(SeriesTest, ValuesOfFewerThanThreeBytesAreNoRecords) {
  EXPECT_EQ(series_->CreateRecordMeta("T a:%i4")->id, 1);
  Store("empty", "");
  Store("one", "01");
  Store("two", "01 00");
  for (const char* key : {"empty", "one", "two"}) EXPECT_EQ(Get(key), nullptr) << key;
  Store("three", "01 00 07");
  ASSERT_NE(Get("three"), nullptr);
  EXPECT_EQ(Get("three")->GetValue("a").numeric.i32, 7);
}

// Two bytes are stored, and two bytes are not read as a record.
TEST_F(SeriesTest, RecordWithoutFieldsIsStoredButNotFound) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T x"), kStatusOk);
  EXPECT_EQ(StoredHex("k"), "01 00");
  EXPECT_EQ(Get("k"), nullptr);
  EXPECT_TRUE(series_->Contains("k"));
}

TEST_F(SeriesTest, GetWithoutAPlaceForTheRecordIsRefusedWhenThereIsOne) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(series_->Get("k", nullptr), kStatusInvalid);
}

TEST_F(SeriesTest, GetWithoutAPlaceForTheRecordAnswersAsEverWhereThereIsNone) {
  EXPECT_EQ(series_->Get("missing", nullptr), kStatusOk);
  EXPECT_EQ(engine_->Insert("short", 60, "ab", 2), kStatusOk);
  EXPECT_EQ(series_->Get("short", nullptr), kStatusOk);

  CapturedStdout output;
  EXPECT_EQ(engine_->Insert("unknown", 60, "\x63\0abcd", 6), kStatusOk);
  EXPECT_EQ(series_->Get("unknown", nullptr), kStatusRecordTypeUnknown);
  EXPECT_EQ(output.Take(), "Failed to find record meta by given key");
}

TEST_F(SeriesTest, RecordsOfDifferentTypesLieUnderNeighbouringKeys) {
  EXPECT_EQ(series_->AppendRecord("k-1", 60, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("k-2", 60, "U a:%s", "hi"), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("k-3", 60, "T a:%i4", 8), kStatusOk);
  EXPECT_EQ(Get("k-1")->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(Get("k-2")->GetValue("a").str, "hi");
  EXPECT_EQ(Get("k-3")->GetValue("a").numeric.i32, 8);
  EXPECT_EQ(ReadFile(SchemaPath()), "1#T a:%i4\n2#U a:%s\n");
}

TEST_F(SeriesTest, TextThatIsNoTypeStoresNothing) {
  CapturedStdout output;
  const std::vector<Value> none;
  const char* const null = nullptr;
  EXPECT_EQ(series_->AppendRecord("k", 60, "T"), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecord("k", 60, "T", none), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecordWithVarList("k", "T"), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecord("k", 60, null), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecord("k", 60, null, none), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecordWithVarList("k", null), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->AppendRecord("k", 60, static_cast<const RecordMeta*>(nullptr), none), kStatusInvalid);
  EXPECT_EQ(output.Take(), kMissingMeta);
  EXPECT_EQ(series_->CreateRecordMeta("T"), nullptr);
  EXPECT_EQ(output.Take(), "");

  EXPECT_FALSE(series_->Contains("k"));
  EXPECT_EQ(ReadFile(SchemaPath()), "");
}

TEST_F(SeriesTest, RecordTypeIsTheSameObjectHoweverItIsAskedFor) {
  const RecordMeta* meta = series_->CreateRecordMeta("T a:%i4");
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->id, 1);
  EXPECT_EQ(series_->CreateRecordMeta("T a:%i4"), meta);
  EXPECT_EQ(series_->AppendRecord("k", 60, meta, {Value::Int32Value(7)}), kStatusOk);
  EXPECT_EQ(Get("k")->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(ReadFile(SchemaPath()), "1#T a:%i4\n");
}

TEST_F(SeriesTest, RecordOfATypeThatTheSchemaDoesNotKnowCannotBeRead) {
  const std::unique_ptr<RecordMeta> meta(RecordMeta::Create(77, "T a:%i4"));
  EXPECT_EQ(series_->AppendRecord("k", 60, meta.get(), {Value::Int32Value(7)}), kStatusOk);
  EXPECT_EQ(ReadFile(SchemaPath()), "");

  CapturedStdout output;
  Record* record = nullptr;
  EXPECT_EQ(series_->Get("k", &record), kStatusRecordTypeUnknown);
  EXPECT_EQ(output.Take(), "Failed to find record meta by given key");
  EXPECT_EQ(record, nullptr);

  WriteFile(SchemaPath(), "77#U b:%i4\n");
  EXPECT_EQ(Get("k")->GetValue("b").numeric.i32, 7);
}

TEST_F(SeriesTest, AppendedRecordStaysAsItIs) {
  const RecordMeta* meta = series_->CreateRecordMeta("T a:%s,b:%i4");
  Record record(meta, {Value::Int32Value(42), Value::StringValue("7")});
  EXPECT_EQ(series_->AppendRecord("k", 60, record), kStatusOk);
  EXPECT_EQ(record.GetValue("a").type, ValueType::Int32);
  EXPECT_EQ(record.GetValue("b").str, "7");
  EXPECT_EQ(Get("k")->GetValue("a").str, "42");
  EXPECT_EQ(Get("k")->GetValue("b").numeric.i32, 7);
}

TEST_F(SeriesTest, NumbersInTextFieldsAreStoredWhole) {
  const std::vector<Value> values = {Value::Int32Value(-42), Value::DoubleValue(1.5),
                                     Value::Int64Value(1L << 62), Value::StringValue("end")};
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%s,b:%s,c:%s,d:%s", values), kStatusOk);
  EXPECT_EQ(StoredHex("k"),
            "01 00 03 00 00 00 2d 34 32 08 00 00 00 31 2e 35 30 30 30 30 30 "
            "13 00 00 00 34 36 31 31 36 38 36 30 31 38 34 32 37 33 38 37 39 30 34 03 00 00 00 65 6e 64");
  EXPECT_EQ(Get("k")->GetValue("c").str, "4611686018427387904");
}

TEST_F(SeriesTest, LongestNumberInATextFieldIsStoredWhole) {
  const double lowest = -1.7976931348623157e308;
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%s", {Value::DoubleValue(lowest)}), kStatusOk);
  EXPECT_EQ(Get("k")->GetValue("a").str, std::to_string(lowest));
}

// A text that was turned into a number keeps its text, which Capacity counts.
TEST_F(SeriesTest, TextThatBecameANumberIsStoredInAsManyBytesAsItsCapacity) {
  Value number = Value::StringValue("7pounds");
  number.ConvertTo(ValueType::Int32);
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%s", {number}), kStatusOk);
  EXPECT_EQ(StoredHex("k"), "01 00 01 00 00 00 37 00 00 00 00 00 00");
  EXPECT_EQ(Get("k")->GetValue("a").str, "7");
}

// Capacity counts the length of the empty Binary, and Encode fills those bytes with the number's digits.
TEST_F(SeriesTest, NumberInATextFieldTakesTheRoomOfAnEmptyBinary) {
  const Value empty = Value::BinaryValue(nullptr, 0);
  EXPECT_EQ(series_->AppendRecord("within", 60, "T a:%s,b:*", {Value::Int32Value(123), empty}), kStatusOk);
  EXPECT_EQ(StoredHex("within"), "01 00 03 00 00 00 31 32 33 00");
  EXPECT_EQ(series_->AppendRecord("beyond", 60, "T a:%s,b:*", {Value::Int32Value(12345), empty}), kStatusOk);
  EXPECT_EQ(StoredHex("beyond"), "01 00 05 00 00 00 31 32 33 34 35");
}

TEST_F(SeriesTest, EmptyBinaryIsStoredAsFourZeroBytesAtTheEnd) {
  EXPECT_EQ(series_->AppendRecord("last", 60, "T a:%i4,b:*", {Value::Int32Value(7), Value()}), kStatusOk);
  EXPECT_EQ(StoredHex("last"), "01 00 07 00 00 00 00 00 00 00");
  EXPECT_EQ(series_->AppendRecord("first", 60, "U a:*,b:%i4",
                                  {Value::BinaryValue(nullptr, 0), Value::Int32Value(7)}),
            kStatusOk);
  EXPECT_EQ(StoredHex("first"), "02 00 07 00 00 00 00 00 00 00");
  const std::string text(60, 'x');
  EXPECT_EQ(series_->AppendRecord("large", 60, "V a:%s,b:*",
                                  {Value::StringValue(text), Value::BinaryValue("y", 0)}),
            kStatusOk);
  EXPECT_EQ(StoredHex("large"), "03 00 3c 00 00 00 " + ToHex(text) + " 00 00 00 00");
}

TEST_F(SeriesTest, BinaryAsTheLastFieldComesBack) {
  const std::string bytes("a\0b", 3);
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4,b:*",
                                  {Value::Int32Value(7), Value::BinaryValue(bytes.data(), 3)}),
            kStatusOk);
  EXPECT_EQ(StoredHex("k"), "01 00 07 00 00 00 03 00 00 00 61 00 62");
  const auto record = Get("k");
  const Value value = record->GetValue("b");
  ASSERT_EQ(value.type, ValueType::Binary);
  EXPECT_EQ(std::string(static_cast<const char*>(value.binary), value.binarySize), bytes);
}

TEST_F(SeriesTest, RecordsOnBothSidesOfTheStackBufferAreStoredWhole) {
  for (size_t length = 55; length <= 62; ++length) {
    const std::string text(length, 'x');
    EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%s", text.c_str()), kStatusOk);
    std::string expected("\x01\0", 2);
    expected += static_cast<char>(length) + std::string(3, '\0') + text;
    EXPECT_EQ(StoredHex("k"), ToHex(expected));
  }
}

TEST_F(SeriesTest, FewerNumbersThanFieldsAreStoredAsZero) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4,b:%i4,c:%d", {Value::Int32Value(7)}), kStatusOk);
  EXPECT_EQ(StoredHex("k"), "01 00 07 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(SeriesTest, RecordOfFourGigabytesIsRefused) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:*", {Value::BinaryValue(nullptr, 4294967295U)}),
            kStatusNoMemory);
  EXPECT_FALSE(series_->Contains("k"));
}

TEST_F(SeriesTest, RecordThatTheLogCannotHoldIsRefusedByTheEngine) {
  CapturedStdout output;
  const std::string text(kConfig.walSize, 'x');
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%s", text.c_str()), kStatusWalFull);
  EXPECT_EQ(series_->AppendRecord("", 60, "T a:%s", "hi"), kStatusInvalid);
  EXPECT_NE(output.Take().find("Invalid key"), std::string::npos);
}

TEST_F(SeriesTest, AppendWithVarListLastsForTheSecondOfItsWriting) {
  FakeClock clock;
  EXPECT_EQ(series_->AppendRecordWithVarList("k", "T a:%i4,b:%s", 7, "hi"), kStatusOk);
  DataEntry entry = {};
  EXPECT_EQ(engine_->GetDataEntry("k", entry), kStatusOk);
  EXPECT_EQ(entry.ttl, 0U);
  EXPECT_EQ(Get("k")->GetValue("b").str, "hi");

  clock.Advance(1);
  CapturedStdout output;
  Record* record = nullptr;
  EXPECT_EQ(series_->Get("k", &record), kStatusExpired);
  EXPECT_EQ(output.Take(), "TTL verification failedInternal error while trying to find data with given key");
  EXPECT_EQ(record, nullptr);
  EXPECT_TRUE(series_->Contains("k"));
}

TEST_F(SeriesTest, TimeToLiveIsThatOfTheCall) {
  FakeClock clock;
  const RecordMeta* meta = series_->CreateRecordMeta("T a:%i4");
  Record record(meta, {Value::Int32Value(7)});
  EXPECT_EQ(series_->AppendRecord("record", 10, record), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("arguments", 10, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("text", 10, "T a:%i4", {Value::Int32Value(7)}), kStatusOk);
  EXPECT_EQ(series_->AppendRecord("meta", 10, meta, {Value::Int32Value(7)}), kStatusOk);
  for (const char* key : {"record", "arguments", "text", "meta"}) {
    DataEntry entry = {};
    EXPECT_EQ(engine_->GetDataEntry(key, entry), kStatusOk);
    EXPECT_EQ(entry.ttl, 10U) << key;
    EXPECT_EQ(entry.timestamp, clock.Now()) << key;
  }
}

TEST_F(SeriesTest, EngineOperationsPassThrough) {
  for (const char* key : {"a", "b", "c", "d"}) {
    EXPECT_EQ(series_->AppendRecord(key, 60, "T a:%i4", 7), kStatusOk);
  }
  EXPECT_EQ(series_->Delete("a"), kStatusOk);
  EXPECT_FALSE(series_->Contains("a"));
  EXPECT_TRUE(series_->Contains("b"));

  std::vector<Key> keys;
  const auto collect = [&keys](const Key& key) {
    keys.push_back(key);
    return key == Key("c");
  };
  EXPECT_EQ(series_->EnumerateKeys("b", "e", collect), kStatusOk);
  EXPECT_EQ(keys, (std::vector<Key>{"b", "c"}));

  EXPECT_EQ(series_->DeleteByRange("b", "d"), kStatusOk);
  EXPECT_FALSE(series_->Contains("c"));
  EXPECT_TRUE(series_->Contains("d"));
  EXPECT_EQ(series_->ForceCompact(), kStatusOk);
  EXPECT_EQ(series_->Clear(), kStatusOk);
  EXPECT_FALSE(series_->Contains("d"));
}

TEST_F(SeriesTest, ClearKeepsTheRecordTypes) {
  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(series_->Clear(), kStatusOk);
  EXPECT_EQ(ReadFile(SchemaPath()), "1#T a:%i4\n");
  EXPECT_EQ(series_->AppendRecord("k", 60, "U a:%i4", 7), kStatusOk);
  EXPECT_EQ(ReadFile(SchemaPath()), "1#T a:%i4\n2#U a:%i4\n");
}

TEST_F(SeriesTest, RecordsSurviveAFlushAndACompaction) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(series_->AppendRecord(std::to_string(i), 60, "T a:%i4,b:%s", i, "hi"), kStatusOk);
    EXPECT_EQ(engine_->ResetWal(), kStatusOk);
  }
  EXPECT_EQ(series_->ForceCompact(), kStatusOk);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Get(std::to_string(i))->GetValue("a").numeric.i32, i);
}

TEST_F(SeriesTest, WithoutEngineOrSchemaEveryCallReturns) {
  Series series(nullptr, nullptr);
  CapturedStdout output;
  Record* record = nullptr;
  EXPECT_NE(series.Get("k", &record), kStatusOk);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(series.AppendRecord("k", 60, "T a:%i4", 7), kStatusInvalid);
  EXPECT_EQ(series.CreateRecordMeta("T a:%i4"), nullptr);
  EXPECT_NE(series.Delete("k"), kStatusOk);

  EXPECT_EQ(series_->AppendRecord("k", 60, "T a:%i4", 7), kStatusOk);
  Series withoutSchema(nullptr, engine_);
  EXPECT_EQ(withoutSchema.Get("k", &record), kStatusRecordTypeUnknown);
}

using SeriesDeathTest = SeriesTest;

TEST_F(SeriesDeathTest, AppendingWithoutAValueForATextOrBinaryFieldAborts) {
  const std::vector<Value> none;
  EXPECT_EXIT(series_->AppendRecord("k", 60, "T a:%s", none), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(series_->AppendRecord("k", 60, "T a:%i4,b:*", 7), testing::KilledBySignal(SIGABRT), "");
}

class SeriesOpenTest : public testing::Test {
 protected:
  SeriesOpenTest() : path_(directory_.PathOf("store")) {}

  // The descriptors of this process that are open on files of the store.
  size_t OpenFiles() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
      if (target.rfind(path_ + "/", 0) == 0) ++count;
    }
    return count;
  }

  ScratchDirectory directory_;
  std::string path_;
};

TEST_F(SeriesOpenTest, CreatesTheStoreAndAnEmptySchema) {
  const auto series = OpenSeries(path_);
  ASSERT_NE(series, nullptr);
  EXPECT_EQ(ReadFile(path_ + "/meta_v5"), "");
  EXPECT_EQ(std::filesystem::file_size(path_ + "/wal_v5"), kConfig.walSize);
  EXPECT_TRUE(std::filesystem::exists(path_ + "/manifest_v5"));
}

TEST_F(SeriesOpenTest, ClosesEveryFileWithTheSeries) {
  auto series = OpenSeries(path_);
  EXPECT_EQ(OpenFiles(), 3U);
  series.reset();
  EXPECT_EQ(OpenFiles(), 0U);
}

TEST_F(SeriesOpenTest, RecordsAndTypesAreThereAfterReopening) {
  EXPECT_EQ(OpenSeries(path_)->AppendRecord("k", 60, "T a:%i4", 7), kStatusOk);
  Record* record = nullptr;
  EXPECT_EQ(OpenSeries(path_)->Get("k", &record), kStatusOk);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("a").numeric.i32, 7);
  delete record;
}

TEST_F(SeriesOpenTest, DirectoryMayEndInASlash) {
  EXPECT_EQ(OpenSeries(path_ + "/")->AppendRecord("k", 60, "T a:%i4", 7), kStatusOk);
  EXPECT_EQ(ReadFile(path_ + "//meta_v5"), "1#T a:%i4\n");
}

TEST_F(SeriesOpenTest, WithoutAPlaceForTheSeriesTheStoreIsCreatedAndClosed) {
  EXPECT_EQ(Series::Open(path_, kConfig, nullptr), kStatusOk);
  EXPECT_TRUE(std::filesystem::exists(path_ + "/meta_v5"));
  EXPECT_EQ(OpenFiles(), 0U);
}

TEST_F(SeriesOpenTest, ReportsAnEngineThatCannotBeOpened) {
  const std::string path = directory_.PathOf("missing/store");
  CapturedStdout output;
  Series* series = nullptr;
  EXPECT_EQ(Series::Open(path, kConfig, &series), kStatusDirectoryFailed);
  EXPECT_EQ(output.Take(), "Failed to create directory: " + path + "Failed to load main db: " + path);
  EXPECT_EQ(series, nullptr);
}

TEST_F(SeriesOpenTest, ReportsASchemaThatCannotBeOpenedAndLeavesNothingOpen) {
  std::filesystem::create_directories(path_ + "/meta_v5");
  CapturedStdout output;
  Series* series = nullptr;
  EXPECT_EQ(Series::Open(path_, kConfig, &series), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "Filed to open series meta fileFailed to load schema: " + path_);
  EXPECT_EQ(series, nullptr);
  EXPECT_EQ(OpenFiles(), 0U);
}

TEST_F(SeriesOpenTest, RemoveDeletesTheStoreWithItsSchema) {
  OpenSeries(path_)->AppendRecord("k", 60, "T a:%i4", 7);
  EXPECT_EQ(Series::Remove(path_), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_EQ(Series::Remove(path_), kStatusOpenFailed);
}

}  // namespace
}  // namespace Kestrun
