#include "kestrun/record_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kestrun/kestrun.h"
#include "kestrun/write_batch.h"
#include "record/schema.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::CapturedStdout;
using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::ReadFile;
using Testing::ScratchDirectory;
using Testing::TestRandom;
using Testing::TestSize;
using Testing::WriteFile;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string PayloadOf(const Value& value) {
  return {static_cast<const char*>(value.binary), value.binarySize};
}

Value BinaryOf(const std::string& bytes) {
  return Value::BinaryValue(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

// Equal in type and payload; numbers bit by bit.
bool Same(const Value& a, const Value& b) {
  if (a.type != b.type) return false;
  switch (a.type) {
    case ValueType::Int32:
    case ValueType::Float:
      return std::memcmp(&a.numeric, &b.numeric, 4) == 0;
    case ValueType::Int64:
    case ValueType::Double:
      return std::memcmp(&a.numeric, &b.numeric, 8) == 0;
    case ValueType::String:
      return a.str == b.str;
    default:
      return PayloadOf(a) == PayloadOf(b);
  }
}

class RecordStoreTest : public testing::Test {
 protected:
  RecordStoreTest() : path_(directory_.PathOf("store")), store_(Open()) {}

  std::unique_ptr<RecordStore> Open() const {
    std::unique_ptr<RecordStore> store;
    EXPECT_EQ(RecordStore::Open(path_, {}, &store), kStatusOk);
    return store;
  }

  void Reopen() {
    store_.reset();
    store_ = Open();
  }

  // The record under `key`, null when there is none.
  static std::unique_ptr<Record> Get(RecordStore& store, const std::string& key) {
    std::unique_ptr<Record> record;
    EXPECT_EQ(store.Get(key, &record), kStatusOk);
    return record;
  }
  std::unique_ptr<Record> Get(const std::string& key) const { return Get(*store_, key); }

  // What a store of one field of type `token` answers to `value`.
  uint32_t PutOne(const std::string& token, const Value& value) {
    return store_->Put("k", "One a:" + token, {value});
  }

  std::string TypesFile() const { return ReadFile(path_ + "/meta_v5"); }

  ScratchDirectory directory_;
  std::string path_;
  std::unique_ptr<RecordStore> store_;
};

TEST_F(RecordStoreTest, RecordComesBackAsItWasPut) {
  ASSERT_EQ(store_->Put("room-12", "Reading celsius:%d,percent:%i4,place:%s", Values(21.5, 40, "window")),
            kStatusOk);
  const auto record = Get("room-12");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->GetValue("celsius").numeric.f64, 21.5);
  EXPECT_EQ(record->GetValue("percent").numeric.i32, 40);
  EXPECT_EQ(record->GetValue("place").str, "window");
  EXPECT_EQ(TypesFile(), "1#Reading celsius:%d,percent:%i4,place:%s\n");
}

TEST_F(RecordStoreTest, MissingAndDeletedRecordsAreNull) {
  auto record = std::make_unique<Record>(nullptr, std::vector<Value>());
  EXPECT_EQ(store_->Get("k", &record), kStatusOk);
  EXPECT_EQ(record, nullptr);
  ASSERT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOk);
  ASSERT_EQ(store_->Raw().Delete("k"), kStatusOk);
  EXPECT_EQ(Get("k"), nullptr);
}

TEST_F(RecordStoreTest, ValuesGiveEachArgumentItsType) {
  const std::string text = "text";
  const auto values = Values(true, 'x', static_cast<unsigned short>(65535), 7, 7L, 7U, 7ULL, 1.5F, 2.5,
                             "literal", text, std::string_view("view"), Value::Int64Value(9));
  const ValueType expected[] = {ValueType::Int32,  ValueType::Int32,  ValueType::Int32,  ValueType::Int32,
                                ValueType::Int64,  ValueType::Int64,  ValueType::Int64,  ValueType::Float,
                                ValueType::Double, ValueType::String, ValueType::String, ValueType::String,
                                ValueType::Int64};
  ASSERT_EQ(values.size(), std::size(expected));
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(values[i].type, expected[i]) << i;
  EXPECT_EQ(values[2].numeric.i32, 65535);
  EXPECT_EQ(Values(4294967295U)[0].numeric.i64, 4294967295);
  EXPECT_EQ(values[11].str, "view");
  EXPECT_TRUE(Values().empty());
}

TEST_F(RecordStoreTest, UnsignedNumberBeyondInt64IsRefusedByEveryField) {
  const Value beyond = Values(std::numeric_limits<uint64_t>::max())[0];
  EXPECT_EQ(Values(static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))[0].type, ValueType::Int64);
  for (const char* token : {"%i4", "%i8", "%f", "%d", "%s", "*"})
    EXPECT_EQ(PutOne(token, beyond), kStatusInvalid);
}

TEST_F(RecordStoreTest, WholeNumberGoesIntoEveryFieldOfNumbers) {
  ASSERT_EQ(store_->Put("k", "T a:%i4,b:%i8,c:%f,d:%d", Values(21, 21, 21, 21)), kStatusOk);
  const auto record = Get("k");
  EXPECT_EQ(record->GetValue("a").numeric.i32, 21);
  EXPECT_EQ(record->GetValue("b").numeric.i64, 21);
  EXPECT_EQ(record->GetValue("c").numeric.f32, 21.0F);
  EXPECT_EQ(record->GetValue("d").numeric.f64, 21.0);
  ASSERT_EQ(store_->Put("k", "T a:%i4,b:%i8,c:%f,d:%d", Values(21.0, 21.0F, 21.0, 21.0F)), kStatusOk);
  EXPECT_EQ(Get("k")->GetValue("a").numeric.i32, 21);
  EXPECT_EQ(Get("k")->GetValue("b").numeric.i64, 21);
}

TEST_F(RecordStoreTest, ConversionsThatLoseNothingAreMadeAndOthersRefused) {
  const long two53 = 1L << 53;
  const struct {
    const char* token;
    Value value;
    bool taken;
  } rows[] = {
      {"%i4", Value::Int64Value(2147483647), true},
      {"%i4", Value::Int64Value(2147483648), false},
      {"%i4", Value::Int64Value(-2147483648), true},
      {"%i4", Value::Int64Value(-2147483649), false},
      {"%i4", Value::DoubleValue(2147483647.0), true},
      {"%i4", Value::DoubleValue(2147483648.0), false},
      {"%i4", Value::DoubleValue(-2147483648.0), true},
      {"%i4", Value::DoubleValue(2.5), false},
      {"%i4", Value::DoubleValue(-0.0), true},
      {"%i4", Value::DoubleValue(std::nan("")), false},
      {"%i4", Value::FloatValue(1.5F), false},
      {"%i4", Value::DoubleValue(kInfinity), false},
      {"%i8", Value::DoubleValue(9223372036854774784.0), true},
      {"%i8", Value::DoubleValue(9223372036854775808.0), false},
      {"%i8", Value::DoubleValue(-9223372036854775808.0), true},
      {"%i8", Value::DoubleValue(std::nan("")), false},
      {"%i8", Value::FloatValue(1e30F), false},
      {"%f", Value::Int32Value(16777216), true},
      {"%f", Value::Int32Value(16777217), false},
      {"%f", Value::Int32Value(std::numeric_limits<int32_t>::max()), false},
      {"%f", Value::Int64Value(std::numeric_limits<int64_t>::max()), false},
      {"%f", Value::Int64Value(std::numeric_limits<int64_t>::min()), true},
      {"%f", Value::DoubleValue(0.5), true},
      {"%f", Value::DoubleValue(0.1), false},
      {"%f", Value::DoubleValue(1e300), false},
      {"%f", Value::DoubleValue(-1e300), false},
      {"%f", Value::DoubleValue(kInfinity), true},
      {"%f", Value::DoubleValue(std::nan("")), true},
      {"%d", Value::FloatValue(0.1F), true},
      {"%d", Value::Int64Value(two53), true},
      {"%d", Value::Int64Value(two53 + 1), false},
      {"%d", Value::Int64Value(std::numeric_limits<int64_t>::max()), false},
      {"%d", Value::Int64Value(std::numeric_limits<int64_t>::min()), true},
      {"%d", Value::StringValue("1.5"), false},
      {"%i4", Value::StringValue("7"), false},
      {"%s", Value::Int32Value(7), false},
      {"%s", Value::DoubleValue(1.5), false},
      {"%s", BinaryOf("bytes"), false},
      {"%s", Value(), false},
      {"%i4", Value(), false},
      {"*", Value(), false},
      {"*", Value::Int32Value(7), false},
      {"*", Value::StringValue("text"), true},
      {"*", Value::BinaryValue(nullptr, 0), true},
      {"*", Value::BinaryValue(nullptr, 1), false},
  };
  int row = 0;
  for (const auto& [token, value, taken] : rows) {
    EXPECT_EQ(PutOne(token, value), taken ? kStatusOk : kStatusInvalid) << "row " << row << ", " << token;
    ++row;
  }
}

TEST_F(RecordStoreTest, NumberOfValuesIsThatOfTheFields) {
  EXPECT_EQ(store_->Put("k", "T a:%i4,b:%s", Values(7)), kStatusInvalid);
  EXPECT_EQ(store_->Put("k", "T a:%i4,b:%s", Values()), kStatusInvalid);
  EXPECT_EQ(store_->Put("k", "T a:%i4,b:%s", Values(7, "hi", 8)), kStatusInvalid);
  EXPECT_EQ(Get("k"), nullptr);
}

TEST_F(RecordStoreTest, TypesThatCouldNotBeReadBackAreRefusedAndLeaveNothing) {
  const std::string texts[] = {"",
                               "T",
                               "T ",
                               "T x",
                               "T ,",
                               "T a:%i4,b",
                               "T a:%i4,b:",
                               "T a:%I4",
                               "T a:%i4:x",
                               "T a:%i4 ",
                               "T a:*,b:*",
                               "T a:*,b:%i4",
                               "T a#b:%i4",
                               "T#1 a:%i4",
                               "T a:%i4,\nb:%i4",
                               "\nT a:%i4",
                               "T a:none",
                               "T a:%i4,b:%x",
                               std::string("T a\0b:%i4", 10)};
  for (const std::string& text : texts) {
    for (const auto& values : {Values(), Values(7), Values(7, 8)}) {
      EXPECT_EQ(store_->Put("k", text, values), kStatusInvalid) << text;
    }
  }
  EXPECT_EQ(TypesFile(), "");
  EXPECT_EQ(Get("k"), nullptr);
}

TEST_F(RecordStoreTest, UnusualTypesThatCanBeReadBackAreTaken) {
  EXPECT_EQ(store_->Put("a", "T a:%i4,,b:%s,", Values(7, "hi")), kStatusOk);
  EXPECT_EQ(store_->Put("b", " a:%i4, b:%s", Values(7, "hi")), kStatusOk);
  EXPECT_EQ(store_->Put("c", "T :%s", Values("hi")), kStatusOk);
  EXPECT_EQ(store_->Put("d", "T a:%s,a:%i4", Values("hi", 7)), kStatusOk);
  Reopen();
  EXPECT_EQ(Get("a")->GetValue("b").str, "hi");
  EXPECT_EQ(Get("b")->GetValue(" b").str, "hi");
  EXPECT_EQ(Get("c")->GetValue("").str, "hi");
  EXPECT_EQ(Get("d")->GetValue(1).numeric.i32, 7);
}

TEST_F(RecordStoreTest, EmptyBinaryIsAValueAndNotAMissingOne) {
  const std::string empty;
  ASSERT_EQ(store_->Put("alone", "A a:*", {Value::BinaryValue(nullptr, 0)}), kStatusOk);
  ASSERT_EQ(store_->Put("last", "B a:%s,b:%i8,c:*",
                        {Value::StringValue(""), Value::Int64Value(0), BinaryOf(empty)}),
            kStatusOk);
  for (const char* name : {"alone", "last"}) {
    const auto record = Get(name);
    ASSERT_NE(record, nullptr) << name;
    const Value value = record->GetValue(std::string(name) == "alone" ? "a" : "c");
    EXPECT_EQ(value.type, ValueType::Binary) << name;
    EXPECT_EQ(value.binarySize, 0U) << name;
  }
}

TEST_F(RecordStoreTest, TextsAndBytesOfAnyContentAndLengthComeBack) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  const std::string long_(100000, '\0');
  const std::string texts[] = {"", std::string(1, '\0'), all, long_, std::string(64, 'x'), "a#b\nc"};
  for (const std::string& text : texts) {
    ASSERT_EQ(store_->Put("k", "T a:%s,b:%s,c:*",
                          {Value::StringValue(text), Value::StringValue(text), BinaryOf(text)}),
              kStatusOk);
    const auto record = Get("k");
    EXPECT_EQ(record->GetValue("a").str, text);
    EXPECT_EQ(record->GetValue("b").str, text);
    EXPECT_EQ(PayloadOf(record->GetValue("c")), text);
  }
}

TEST_F(RecordStoreTest, TextInABinaryFieldComesBackAsItsBytes) {
  ASSERT_EQ(store_->Put("k", "T a:*", Values("bytes")), kStatusOk);
  EXPECT_EQ(PayloadOf(Get("k")->GetValue("a")), "bytes");
}

TEST_F(RecordStoreTest, KeyAndTimeToLiveAreThoseOfAStore) {
  const std::string longest(65535, 'k');
  EXPECT_EQ(store_->Put("", "T a:%i4", Values(7)), kStatusInvalid);
  EXPECT_EQ(store_->Put(longest + "k", "T a:%i4", Values(7)), kStatusInvalid);
  EXPECT_EQ(store_->Put("\xff", "T a:%i4", Values(7)), kStatusInvalid);
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7), 0), kStatusInvalid);
  WriteBatch batch;
  EXPECT_EQ(store_->AddToBatch(&batch, "", "T a:%i4", Values(7)), kStatusInvalid);
  EXPECT_EQ(store_->AddToBatch(&batch, "k", "T a:%i4", Values(7), 0), kStatusInvalid);
  EXPECT_EQ(batch.Count(), 0U);
  EXPECT_EQ(TypesFile(), "") << "a refused record leaves no type";
  EXPECT_EQ(store_->Put(longest, "T a:%i4", Values(7)), kStatusOk);
  EXPECT_NE(Get(longest), nullptr);
}

TEST_F(RecordStoreTest, NullArgumentsAreRefused) {
  EXPECT_EQ(RecordStore::Open(path_, {}, nullptr), kStatusInvalid);
  EXPECT_EQ(store_->Get("k", nullptr), kStatusInvalid);
  EXPECT_EQ(store_->Decode("abc", nullptr), kStatusInvalid);
  EXPECT_EQ(store_->AddToBatch(nullptr, "k", "T a:%i4", Values(7)), kStatusInvalid);
  EXPECT_EQ(TypesFile(), "");
}

TEST_F(RecordStoreTest, BatchStoresItsRecordsTogether) {
  WriteBatch batch;
  ASSERT_EQ(store_->AddToBatch(&batch, "a", "T a:%i4", Values(1)), kStatusOk);
  ASSERT_EQ(store_->AddToBatch(&batch, "b", "U b:%s", Values("two")), kStatusOk);
  EXPECT_EQ(store_->AddToBatch(&batch, "c", "T a:%i4", Values("three")), kStatusInvalid);
  EXPECT_EQ(batch.Count(), 2U);
  EXPECT_EQ(Get("a"), nullptr);
  ASSERT_EQ(store_->Raw().Write(batch), kStatusOk);
  EXPECT_EQ(Get("a")->GetValue("a").numeric.i32, 1);
  EXPECT_EQ(Get("b")->GetValue("b").str, "two");
}

TEST_F(RecordStoreTest, DecodeReadsWhatOtherWaysOfReadingGave) {
  ASSERT_EQ(store_->Put("k", "T a:%i4,b:*", {Value::Int32Value(7), BinaryOf("bytes")}), kStatusOk);
  std::optional<std::string> bytes;
  ASSERT_EQ(store_->Raw().Get("k", &bytes), kStatusOk);
  ASSERT_TRUE(bytes);
  std::unique_ptr<Record> record;
  ASSERT_EQ(store_->Decode(*bytes, &record), kStatusOk);
  bytes.reset();  // the record has bytes of its own
  EXPECT_EQ(record->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(PayloadOf(record->GetValue("b")), "bytes");
}

TEST_F(RecordStoreTest, BytesThatAreNoRecordAreRefusedAndLeaveTheArgument) {
  ASSERT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOk);
  auto record = Get("k");
  const Record* before = record.get();
  for (const auto& bytes : {"", "a", "ab"}) {
    EXPECT_EQ(store_->Decode(bytes, &record), kStatusInvalid);
    ASSERT_EQ(store_->Raw().Put("short", bytes), kStatusOk);
    EXPECT_EQ(store_->Get("short", &record), kStatusInvalid);
  }
  EXPECT_EQ(store_->Decode("\x63\x01 unknown", &record), kStatusRecordTypeUnknown);
  ASSERT_EQ(store_->Raw().Put("unknown", "\x63\x01 unknown"), kStatusOk);
  EXPECT_EQ(store_->Get("unknown", &record), kStatusRecordTypeUnknown);
  EXPECT_EQ(store_->Get("", &record), kStatusInvalid);
  EXPECT_EQ(record.get(), before);
}

// A Binary whose bytes are cut off has no value; taking it for an empty one would be a guess.
TEST_F(RecordStoreTest, CutOffBinaryIsNotTakenForAnEmptyOne) {
  ASSERT_EQ(store_->Put("k", "T a:%i4,b:*", {Value::Int32Value(7), BinaryOf("bytes")}), kStatusOk);
  std::optional<std::string> bytes;
  ASSERT_EQ(store_->Raw().Get("k", &bytes), kStatusOk);
  std::unique_ptr<Record> record;
  ASSERT_EQ(store_->Decode(bytes->substr(0, bytes->size() - 1), &record), kStatusOk);
  EXPECT_EQ(record->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(record->GetValue("b").type, ValueType::None);
  ASSERT_EQ(store_->Decode(bytes->substr(0, 6), &record), kStatusOk);
  EXPECT_EQ(record->GetValue("b").type, ValueType::Binary)
      << "encoded by Record::Encode an empty one ends here";
}

TEST_F(RecordStoreTest, TypesAreListedInTheOrderOfTheirNumbers) {
  EXPECT_TRUE(store_->Types().empty());
  std::vector<std::string> expected;
  for (int i = 0; i < 40; ++i) {
    expected.push_back("T" + std::to_string(i * 7919 % 40) + " a:%i4");
    ASSERT_EQ(store_->Put("k", expected.back(), Values(i)), kStatusOk);
  }
  EXPECT_EQ(store_->Types(), expected);
  Reopen();
  EXPECT_EQ(store_->Types(), expected);
}

TEST_F(RecordStoreTest, TypeOfAnotherHandleIsListedAndUsedAtOnce) {
  const auto other = Open();
  ASSERT_EQ(other->Put("k", "T a:%i4", Values(7)), kStatusOk);
  EXPECT_EQ(store_->Types(), std::vector<std::string>{"T a:%i4"});
  EXPECT_EQ(Get("k")->GetValue("a").numeric.i32, 7);
  ASSERT_EQ(store_->Put("l", "T a:%i4", Values(8)), kStatusOk);
  EXPECT_EQ(TypesFile(), "1#T a:%i4\n");
}

TEST_F(RecordStoreTest, SeriesOnTheSameDirectoryReadsAndWritesTheSameRecords) {
  Series* opened = nullptr;
  ASSERT_EQ(Series::Open(path_, {64 * 1024, 0}, &opened), kStatusOk);
  const std::unique_ptr<Series> series(opened);
  ASSERT_EQ(store_->Put("new", "T a:%i4,b:%s", Values(7, "hi")), kStatusOk);
  Record* found = nullptr;
  ASSERT_EQ(series->Get("new", &found), kStatusOk);
  ASSERT_NE(found, nullptr);
  const std::unique_ptr<Record> record(found);
  EXPECT_EQ(record->GetValue("b").str, "hi");
  ASSERT_EQ(series->AppendRecord("old", 600, "U a:%d", 2.5), kStatusOk);
  EXPECT_EQ(Get("old")->GetValue("a").numeric.f64, 2.5);
}

// Two lines of one number: the later one counts, and the type of the earlier one gets a new number.
TEST_F(RecordStoreTest, TypeWhoseNumberCameToBelongToAnotherGetsANewOne) {
  store_.reset();
  WriteFile(path_ + "/meta_v5", "1#T a:%i4\n3#U a:%i4\n1#V a:%s\n4#W a:%i4\n");
  store_ = Open();
  ASSERT_EQ(store_->Put("t", "T a:%i4", Values(7)), kStatusOk);
  ASSERT_EQ(store_->Put("v", "V a:%s", Values("hi")), kStatusOk);
  EXPECT_EQ(Get("t")->GetValue("a").type, ValueType::Int32);
  EXPECT_EQ(Get("v")->GetValue("a").str, "hi");
  EXPECT_EQ(TypesFile(), "1#T a:%i4\n3#U a:%i4\n1#V a:%s\n4#W a:%i4\n5#T a:%i4\n");
}

// The file ends within a line, as a loss of power may leave it.
TEST_F(RecordStoreTest, LineThatWasCutOffSwallowsNoType) {
  store_.reset();
  WriteFile(path_ + "/meta_v5", "1#T a:%i4\n2#U a:%");
  store_ = Open();
  ASSERT_EQ(store_->Put("k", "V a:%s,b:%i4", Values("hi", 7)), kStatusOk);
  Reopen();
  EXPECT_EQ(Get("k")->GetValue("a").str, "hi");
  EXPECT_EQ(Get("k")->GetValue("b").numeric.i32, 7);
}

TEST_F(RecordStoreTest, TypeWithoutANumberLeftIsRefused) {
  store_.reset();
  std::string content;
  for (int i = 1; i <= 65534; ++i) content += std::to_string(i) + "#T" + std::to_string(i) + " a:%i4\n";
  WriteFile(path_ + "/meta_v5", content);
  store_ = Open();
  EXPECT_EQ(store_->Put("last", "Last a:%i4", Values(7)), kStatusOk);
  EXPECT_EQ(store_->Put("k", "Beyond a:%i4", Values(7)), kStatusCreateFailed);
  EXPECT_EQ(store_->Put("known", "T1 a:%i4", Values(8)), kStatusOk);
  EXPECT_EQ(Get("last")->GetValue("a").numeric.i32, 7);
  EXPECT_EQ(Get("known")->GetValue("a").numeric.i32, 8);
}

TEST_F(RecordStoreTest, RecordLargerThanTheLogIsRefused) {
  const std::string text(StoreOptions().logSize, 'x');
  EXPECT_EQ(store_->Put("k", "T a:%s", Values(text)), kStatusWalFull);
  EXPECT_EQ(store_->Put("k", "T a:*", {Value::BinaryValue("x", 4294967295U)}), kStatusInvalid);
}

TEST_F(RecordStoreTest, OpenAnswersAsAStoreDoesAndPrintsNothing) {
  CapturedStdout output;
  std::unique_ptr<RecordStore> store;
  StoreOptions options;
  options.createIfMissing = false;
  EXPECT_EQ(RecordStore::Open(directory_.PathOf("missing"), options, &store), kStatusStoreMissing);
  options.errorIfExists = true;
  EXPECT_EQ(RecordStore::Open(path_, options, &store), kStatusStoreExists);
  store_.reset();
  ASSERT_EQ(unlink((path_ + "/meta_v5").c_str()), 0);
  ASSERT_EQ(mkdir((path_ + "/meta_v5").c_str(), 0700), 0);
  EXPECT_EQ(RecordStore::Open(path_, {}, &store), kStatusOpenFailed);
  EXPECT_EQ(store, nullptr);
  EXPECT_EQ(output.Take(), "");
}

TEST_F(RecordStoreTest, PutFromTheBodyOfATransactionRecordsNoType) {
  uint32_t inside = kStatusOk;
  EXPECT_EQ(store_->Raw().Transact([&](Transaction&) {
    inside = store_->Put("k", "T a:%i4", Values(7));
    return kStatusOk;
  }),
            kStatusOk);
  EXPECT_EQ(inside, kStatusInvalid);
  EXPECT_EQ(TypesFile(), "");
  EXPECT_EQ(Get("k"), nullptr);
}

TEST_F(RecordStoreTest, TwoProcessesReadEachOthersTypes) {
  store_.reset();
  ChildProcess child([this](ChildLink& parent) {
    const auto own = Open();
    if (!parent.Await()) return 1;
    for (int i = 0; i < 50; ++i) {
      const std::string name = std::to_string(i);
      if (own->Put("child-" + name, "Child" + name + " a:%s", Values("c" + name)) != kStatusOk) return 2;
      if (own->Put("shared-c-" + name, "Shared" + name + " a:%i4", Values(i)) != kStatusOk) return 3;
    }
    parent.Signal();
    if (!parent.Await()) return 4;
    for (int i = 0; i < 50; ++i) {
      const auto record = Get(*own, "parent-" + std::to_string(i));
      if (record == nullptr || record->GetValue("a").str != "p" + std::to_string(i)) return 5;
    }
    return 0;
  });
  store_ = Open();
  child.Signal();
  for (int i = 0; i < 50; ++i) {
    const std::string name = std::to_string(i);
    ASSERT_EQ(store_->Put("parent-" + name, "Parent" + name + " a:%s", Values("p" + name)), kStatusOk);
    ASSERT_EQ(store_->Put("shared-p-" + name, "Shared" + name + " a:%i4", Values(i)), kStatusOk);
  }
  ASSERT_TRUE(child.Await());
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
  for (int i = 0; i < 50; ++i) {
    const std::string name = std::to_string(i);
    EXPECT_EQ(Get("child-" + name)->GetValue("a").str, "c" + name);
    EXPECT_EQ(Get("shared-c-" + name)->GetValue("a").numeric.i32, i);
  }
  EXPECT_EQ(store_->Types().size(), 150U) << "each text has one number";
}

// A process that stands still while it makes a type is waited for, and then nothing is written beside it.
TEST_F(RecordStoreTest, TypeThatAnotherProcessIsMakingIsWaitedFor) {
  store_.reset();
  ChildProcess child([this](ChildLink& parent) {
    std::shared_ptr<OsFile> file;
    if (OsFile::Open(path_ + "/meta_v5", kOpenReadWrite, &file) != kStatusOk) return 1;
    if (!file->LockByte(kSchemaCreationByte)) return 2;
    parent.Signal();
    parent.Await();
    return 0;
  });
  ASSERT_TRUE(child.Await());
  StoreOptions options;
  options.busyTimeout = 20;
  ASSERT_EQ(RecordStore::Open(path_, options, &store_), kStatusOk);
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusLockFailed);
  EXPECT_EQ(TypesFile(), "");
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(store_->Put("k", "T a:%i4", Values(7)), kStatusOk);
}

// Random types and values, some under new types, some in batches: what is taken comes back, from the log,
// from blocks and after opening again.
TEST_F(RecordStoreTest, WhateverIsTakenComesBackAsItWasPut) {
  std::mt19937_64 random = TestRandom(1);
  const auto draw = [&random](uint64_t count) { return random() % count; };
  const auto drawBytes = [&](std::string* bytes) {
    bytes->resize(draw(8) == 0 ? draw(3000) : draw(20));
    for (char& byte : *bytes) byte = static_cast<char>(draw(256));
  };
  static const char* const kTokens[] = {"%i4", "%i8", "%f", "%d", "%s", "*"};

  struct Stored {
    std::vector<Value> values;
    std::vector<std::unique_ptr<std::string>> owners;
  };
  std::vector<Stored> stored;
  const uint64_t count = TestSize(400, 20000);
  WriteBatch batch;
  for (uint64_t n = 0; n < count; ++n) {
    std::string type = "Random" + std::to_string(draw(3)) + " ";
    Stored entry;
    const uint64_t fields = 1 + draw(6);
    for (uint64_t i = 0; i < fields; ++i) {
      const uint64_t token = draw(i + 1 == fields ? 6 : 5);
      type += (i == 0 ? "" : ",") + std::string(1, static_cast<char>('a' + i)) + ":" + kTokens[token];
      auto bytes = std::make_unique<std::string>();
      drawBytes(bytes.get());
      const uint64_t bits = random();
      switch (token) {
        case 0:
          entry.values.push_back(Value::Int32Value(static_cast<int>(bits)));
          break;
        case 1:
          entry.values.push_back(Value::Int64Value(static_cast<long>(bits)));
          break;
        case 2:
          entry.values.push_back(Value::FloatValue(0));
          std::memcpy(&entry.values.back().numeric.f32, &bits, 4);
          break;
        case 3:
          entry.values.push_back(Value::DoubleValue(0));
          std::memcpy(&entry.values.back().numeric.f64, &bits, 8);
          break;
        case 4:
          entry.values.push_back(Value::StringValue(*bytes));
          break;
        default:
          entry.values.push_back(BinaryOf(*bytes));
          entry.owners.push_back(std::move(bytes));
          break;
      }
    }
    const std::string key = std::to_string(n);
    if (draw(2) == 0) {
      ASSERT_EQ(store_->Put(key, type, entry.values), kStatusOk) << type;
    } else {
      ASSERT_EQ(store_->AddToBatch(&batch, key, type, entry.values), kStatusOk) << type;
    }
    stored.push_back(std::move(entry));
    if (draw(50) == 0) {
      ASSERT_EQ(store_->Raw().Write(batch), kStatusOk);
      batch.Clear();
    }
    if (draw(100) == 0) {
      ASSERT_EQ(store_->Raw().Flush(), kStatusOk);
    }
  }
  ASSERT_EQ(store_->Raw().Write(batch), kStatusOk);

  for (int round = 0; round < 2; ++round) {
    for (uint64_t n = 0; n < count; ++n) {
      const auto record = Get(std::to_string(n));
      ASSERT_NE(record, nullptr) << n;
      for (unsigned int i = 0; i < stored[n].values.size(); ++i) {
        EXPECT_TRUE(Same(record->GetValue(i), stored[n].values[i])) << n << ", " << i;
      }
    }
    Reopen();
  }
}

}  // namespace
}  // namespace Kestrun
