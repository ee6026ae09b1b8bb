// Real data in a store: the weather of Seattle as typed records, one process per step.
//
//   weather import STORE CSV          stores every day of the file under the key seattle-DATE
//   weather verify STORE CSV          reads every day back and compares it with the file
//   weather change STORE              deletes July 2013 and rewrites every 25th of December
//   weather verify-changed STORE CSV  as verify, expecting the changes
//   weather means STORE               prints the mean of temp_max for each year
//
// Exits with 1 when something does not match or fails.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kestrun/kestrun.h"

namespace {

using Kestrun::Record;
using Kestrun::RecordStore;
using Kestrun::Value;
using Kestrun::ValueType;

constexpr char kDayType[] = "Weather date:%s,precipitation:%d,temp_max:%d,temp_min:%d,wind:%d,weather:%s";
constexpr char kLostMonth[] = "2013-07";
constexpr char kFeast[] = "-12-25";
constexpr char kFeastWeather[] = "snow, as it should be";

using Day = std::vector<std::string>;  // the columns of one row

[[noreturn]] void Fail(const std::string& what) {
  std::cerr << "weather: " << what << '\n';
  std::exit(1);
}

void Check(uint32_t status, const std::string& what) {
  if (status != Kestrun::kStatusOk)
    Fail(what + ": " + Kestrun::StatusName(status) + ", " + Kestrun::StatusText(status));
}

std::vector<Day> ReadCsv(const std::string& path) {
  std::ifstream file(path);
  if (!file) Fail("cannot read " + path);
  std::vector<Day> days;
  std::string line;
  std::getline(file, line);  // the names of the columns
  while (std::getline(file, line)) {
    Day day;
    Kestrun::SplitString(line, day, ",");
    if (day.size() != 6) Fail("a row without six columns: " + line);
    days.push_back(day);
  }
  return days;
}

// A small log on purpose: a few thousand entries make it full often enough to show blocks at work. They stay
// as they are until they are compacted by hand, one step of the demonstration.
std::unique_ptr<RecordStore> OpenStore(const std::string& path) {
  Kestrun::StoreOptions options;
  options.logSize = 16 * 1024;
  options.autoCompact = false;
  std::unique_ptr<RecordStore> store;
  Check(RecordStore::Open(path, options, &store), "open " + path);
  return store;
}

std::string KeyOf(const std::string& date) {
  return "seattle-" + date;
}

std::vector<Value> ValuesOf(const Day& day) {
  std::vector<Value> values = {Value::StringValue(day[0])};
  for (size_t column = 1; column <= 4; ++column) {
    values.push_back(Value::DoubleValue(std::strtod(day[column].c_str(), nullptr)));
  }
  values.push_back(Value::StringValue(day[5]));
  return values;
}

std::unique_ptr<Record> Fetch(RecordStore& store, const std::string& date) {
  std::unique_ptr<Record> record;
  Check(store.Get(KeyOf(date), &record), "read " + date);
  return record;
}

bool Matches(const Record& record, const Day& day) {
  const std::vector<Value> expected = ValuesOf(day);
  for (unsigned int i = 0; i < expected.size(); ++i) {
    const Value value = record.GetValue(i);
    if (value.type != expected[i].type || value.str != expected[i].str) return false;
    if (value.type == ValueType::Double && value.numeric.f64 != expected[i].numeric.f64) return false;
  }
  return true;
}

bool IsLost(const std::string& date) {
  return date.rfind(kLostMonth, 0) == 0;
}

bool IsFeast(const std::string& date) {
  return date.compare(4, std::string::npos, kFeast) == 0;
}

void Import(const std::string& path, const std::string& csv) {
  const std::unique_ptr<RecordStore> store = OpenStore(path);
  const std::vector<Day> days = ReadCsv(csv);
  for (const Day& day : days) Check(store->Put(KeyOf(day[0]), kDayType, ValuesOf(day)), "store " + day[0]);
  std::cerr << "stored " << days.size() << " days\n";
}

void Verify(const std::string& path, const std::string& csv, bool changed) {
  const std::unique_ptr<RecordStore> store = OpenStore(path);
  size_t found = 0;
  size_t absent = 0;
  for (Day day : ReadCsv(csv)) {
    const std::unique_ptr<Record> record = Fetch(*store, day[0]);
    if (changed && IsLost(day[0])) {
      if (record != nullptr) Fail(day[0] + " was deleted and is there");
      ++absent;
      continue;
    }
    if (changed && IsFeast(day[0])) day[5] = kFeastWeather;
    if (record == nullptr) Fail(day[0] + " is missing");
    if (!Matches(*record, day)) Fail(day[0] + " differs from the file");
    ++found;
  }
  std::cerr << found << " days are as they should be";
  if (changed) std::cerr << ", " << absent << " are deleted";
  std::cerr << '\n';
}

// Every day of the store, in order, as it is now.
void ForEachDay(RecordStore& store, const std::function<void(const std::string&, const Record&)>& visit) {
  std::unique_ptr<Kestrun::Snapshot> snapshot;
  Check(store.Raw().TakeSnapshot(&snapshot), "take a snapshot");
  std::unique_ptr<Kestrun::Cursor> cursor;
  Check(snapshot->NewCursor(Kestrun::Range::Prefix(KeyOf("")), &cursor), "list the days");
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
    const std::string date(cursor->Key().substr(KeyOf("").size()));
    std::string_view bytes;
    std::unique_ptr<Record> record;
    Check(cursor->Value(&bytes), "read " + date);
    Check(store.Decode(bytes, &record), "decode " + date);
    visit(date, *record);
  }
  Check(cursor->Status(), "list the days");
}

// The month goes and the feasts change at once, as one batch.
void Change(const std::string& path) {
  const std::unique_ptr<RecordStore> store = OpenStore(path);
  Kestrun::WriteBatch batch;
  size_t feasts = 0;
  ForEachDay(*store, [&](const std::string& date, const Record& record) {
    if (IsLost(date)) Check(batch.Delete(KeyOf(date)), "delete " + date);
    if (!IsFeast(date)) return;
    std::vector<Value> values;
    for (unsigned int i = 0; i < 5; ++i) values.push_back(record.GetValue(i));
    values.push_back(Value::StringValue(kFeastWeather));
    Check(store->AddToBatch(&batch, KeyOf(date), kDayType, values), "rewrite " + date);
    ++feasts;
  });
  Check(store->Raw().Write(batch), "change the days");
  std::cerr << "deleted " << kLostMonth << ", rewrote " << feasts << " days\n";
}

void PrintMeans(const std::string& path) {
  struct Sum {
    double total = 0;
    int days = 0;
  };
  std::map<std::string, Sum> years;
  const std::unique_ptr<RecordStore> store = OpenStore(path);
  ForEachDay(*store, [&years](const std::string& date, const Record& record) {
    Sum& sum = years[date.substr(0, 4)];
    sum.total += record.GetValue("temp_max").numeric.f64;
    ++sum.days;
  });
  for (const auto& year : years) {
    std::cerr << year.first << "  mean of temp_max " << year.second.total / year.second.days << " over "
              << year.second.days << " days\n";
  }
}

}  // namespace

// Results go to standard error.
int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "import" && argc == 4) {
    Import(argv[2], argv[3]);
  } else if (command == "verify" && argc == 4) {
    Verify(argv[2], argv[3], false);
  } else if (command == "change" && argc == 3) {
    Change(argv[2]);
  } else if (command == "verify-changed" && argc == 4) {
    Verify(argv[2], argv[3], true);
  } else if (command == "means" && argc == 3) {
    PrintMeans(argv[2]);
  } else {
    std::cerr << "usage: weather import|verify|verify-changed STORE CSV\n       weather change|means STORE\n";
    return 2;
  }
  return 0;
}
