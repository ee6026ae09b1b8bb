// Writes a store with fixed content, reads it and checks every bit of it, or goes on writing it. Built for
// each architecture and run by portable_store_test.sh, which compares what the programs leave on the disk.
//
//   portable_store write|read|continue|read-continued DIRECTORY
//
// Clock, random numbers and process number are the program's own and the same in every run, so that two runs
// write the same bytes: times of writing and names of blocks.
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/kestrun.h"

namespace {

uint32_t randomState = 1;

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

// Each as its header declares it: some C libraries promise that it throws nothing.
int gettimeofday(struct timeval* now, void* zone) noexcept(noexcept(gettimeofday(now, zone))) {
  now->tv_sec = 1700000000;
  now->tv_usec = 0;
  return 0;
}

int rand() noexcept(noexcept(rand())) {
  randomState = randomState * 1103515245 + 12345;
  return static_cast<int>(randomState >> 16);
}

pid_t getpid() noexcept(noexcept(getpid())) {
  return 4711;
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

using Kestrun::Key;
using Kestrun::LSDBImpl;
using Kestrun::Record;
using Kestrun::Series;
using Kestrun::Value;
using Kestrun::ValueType;

constexpr unsigned int kLong = 4294967295;
constexpr uint32_t kLogSize = 64 * 1024;
constexpr int kKeys = 300;

int failures = 0;

void Expect(bool condition, const std::string& what) {
  if (condition) return;
  std::fprintf(stderr, "FAILED: %s\n", what.c_str());
  ++failures;
}

// Keys of 1 to about 40 bytes, each byte value among them, so that an order by signed char would show. None
// begins with 0xFF: such keys do not reach a block.
std::string KeyOf(int number) {
  std::string key(1, static_cast<char>(number * 7 % 255));
  key += std::to_string(number);
  if (number % 3 == 0) {
    key += '-';
    key.append(static_cast<size_t>(number % 30), static_cast<char>(200 + number % 50));
  }
  return key;
}

std::string ValueOf(int number, int round) {
  std::string value(static_cast<size_t>(number * 13 % 500), static_cast<char>(number + round));
  return std::to_string(round) + value;
}

bool IsDeleted(int number) {
  return number % 11 == 5;
}

// The round in which a key was last written: see WriteValues and ContinueValues.
int LastRound(int number, bool continued) {
  if (continued && number % 6 == 1) return 6;
  for (int round = 5; round > 0; --round) {
    if (number % (round + 1) == 0) return round;
  }
  return 0;
}

std::unique_ptr<LSDBImpl> OpenValues(const std::string& path) {
  LSDBImpl* opened = nullptr;
  const uint32_t status = LSDBImpl::Open(path, {kLogSize, 0}, &opened);
  Expect(status == Kestrun::kStatusOk, "open " + path + ": " + Kestrun::StatusText(status));
  if (opened == nullptr) std::exit(1);
  return std::unique_ptr<LSDBImpl>(opened);
}

void Put(LSDBImpl& store, int number, int round) {
  const std::string value = ValueOf(number, round);
  const uint32_t status =
      store.Insert(KeyOf(number), kLong, value.data(), static_cast<unsigned int>(value.size()));
  Expect(status == Kestrun::kStatusOk, "insert");
}

// A merged block, a block on top of it, and a log that is not empty.
void WriteValues(const std::string& path) {
  const std::unique_ptr<LSDBImpl> store = OpenValues(path);
  for (int round = 0; round < 6; ++round) {
    for (int i = 0; i < kKeys; ++i) {
      if (i % (round + 1) == 0) Put(*store, i, round);
    }
    if (round < 5) Expect(store->ResetWal() == Kestrun::kStatusOk, "flush");
    if (round == 3) Expect(store->ForceCompact() == Kestrun::kStatusOk, "compact");
  }
  for (int i = 0; i < kKeys; ++i) {
    if (IsDeleted(i)) Expect(store->Delete(KeyOf(i)) == Kestrun::kStatusOk, "delete");
  }
}

void ContinueValues(const std::string& path) {
  const std::unique_ptr<LSDBImpl> store = OpenValues(path);
  for (int i = 0; i < kKeys; ++i) {
    if (i % 6 == 1) Put(*store, i, 6);
  }
  Expect(store->ResetWal() == Kestrun::kStatusOk, "flush");
  for (int i = 0; i < kKeys; ++i) {
    if (IsDeleted(i)) Expect(store->Delete(KeyOf(i)) == Kestrun::kStatusOk, "delete");
  }
}

void ReadValues(const std::string& path, bool continued) {
  const std::unique_ptr<LSDBImpl> store = OpenValues(path);
  for (int i = 0; i < kKeys; ++i) {
    const void* bytes = nullptr;
    unsigned int size = 0;
    const std::string what = "value of key " + std::to_string(i);
    Expect(store->Get(KeyOf(i), &bytes, &size) == Kestrun::kStatusOk, what + " is read");
    const std::string value(static_cast<const char*>(bytes), size);
    std::free(const_cast<void*>(bytes));
    Expect(value == (IsDeleted(i) ? "" : ValueOf(i, LastRound(i, continued))), what);
  }

  int visited = 0;
  store->EnumerateKeys(Key::MinKey(), Key::MaxKey(), [&visited](const Key&) {
    ++visited;
    return false;
  });
  Expect(visited >= kKeys, "every key is listed");
}

const char* const kFormat = "Everything i4:%i4,i8:%i8,f:%f,d:%d,s:%s,b:*";
const unsigned char kBytes[] = {0, 1, 127, 128, 200, 255};

std::vector<Value> FieldsOf(int number) {
  return {Value::Int32Value(number % 2 == 0 ? -number : std::numeric_limits<int>::max() - number),
          Value::Int64Value(number % 2 == 0 ? std::numeric_limits<long>::min() + number : number),
          Value::FloatValue(static_cast<float>(number) / 3),
          Value::DoubleValue(-number / 7.0),
          Value::StringValue("text \xc3\xa5 " + std::to_string(number)),
          Value::BinaryValue(kBytes, sizeof(kBytes))};
}

std::unique_ptr<Series> OpenSeries(const std::string& path) {
  Series* opened = nullptr;
  const uint32_t status = Series::Open(path, {kLogSize, 0}, &opened);
  Expect(status == Kestrun::kStatusOk, "open " + path + ": " + Kestrun::StatusText(status));
  if (opened == nullptr) std::exit(1);
  return std::unique_ptr<Series>(opened);
}

void WriteRecords(const std::string& path, int from, int to) {
  const std::unique_ptr<Series> series = OpenSeries(path);
  for (int i = from; i < to; ++i) {
    const std::string key = "record-" + std::to_string(i);
    Expect(series->AppendRecord(key, kLong, kFormat, FieldsOf(i)) == Kestrun::kStatusOk, "append");
    // Arguments pass through the processor's own calling convention.
    Expect(series->AppendRecord("arguments-" + std::to_string(i), kLong, "Arguments n:%i4,l:%i8,x:%d,t:%s",
                                -i, 1L << 40, i / 3.0, "text") == Kestrun::kStatusOk,
           "append arguments");
  }
}

std::unique_ptr<Record> ReadRecord(Series& series, const std::string& key) {
  Record* record = nullptr;
  Expect(series.Get(key, &record) == Kestrun::kStatusOk && record != nullptr, key + " is read");
  if (record == nullptr) std::exit(1);
  return std::unique_ptr<Record>(record);
}

void ReadRecords(const std::string& path, int to) {
  const std::unique_ptr<Series> series = OpenSeries(path);
  for (int i = 0; i < to; ++i) {
    const std::string key = "record-" + std::to_string(i);
    const std::unique_ptr<Record> record = ReadRecord(*series, key);
    const std::vector<Value> fields = FieldsOf(i);
    Expect(record->GetValue("i4").numeric.i32 == fields[0].numeric.i32, key + " i4");
    Expect(record->GetValue("i8").numeric.i64 == fields[1].numeric.i64, key + " i8");
    Expect(record->GetValue("f").numeric.f32 == fields[2].numeric.f32, key + " f");
    Expect(record->GetValue("d").numeric.f64 == fields[3].numeric.f64, key + " d");
    Expect(record->GetValue("s").str == fields[4].str, key + " s");
    const Value binary = record->GetValue("b");
    Expect(binary.binarySize == sizeof(kBytes) && std::memcmp(binary.binary, kBytes, sizeof(kBytes)) == 0,
           key + " b");

    const std::unique_ptr<Record> arguments = ReadRecord(*series, "arguments-" + std::to_string(i));
    Expect(arguments->GetValue("n").numeric.i32 == -i, key + " n");
    Expect(arguments->GetValue("l").numeric.i64 == 1L << 40, key + " l");
    Expect(arguments->GetValue("x").numeric.f64 == i / 3.0, key + " x");
    Expect(arguments->GetValue("t").str == "text", key + " t");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string verb = argv[1];
  const std::string values = std::string(argv[2]) + "/values";
  const std::string records = std::string(argv[2]) + "/records";

  if (verb == "write") {
    WriteValues(values);
    WriteRecords(records, 0, 400);
  } else if (verb == "continue") {
    // Names that are in use already would be drawn again, and differently in every run.
    randomState = 2;
    ContinueValues(values);
    WriteRecords(records, 400, 500);
  } else if (verb == "read") {
    ReadValues(values, false);
    ReadRecords(records, 400);
  } else if (verb == "read-continued") {
    ReadValues(values, true);
    ReadRecords(records, 500);
  } else {
    return 2;
  }
  return failures == 0 ? 0 : 1;
}
