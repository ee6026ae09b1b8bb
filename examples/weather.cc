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

using Kestrun::Key;
using Kestrun::Record;
using Kestrun::Series;
using Kestrun::Value;
using Kestrun::ValueType;

constexpr char kDayType[] = "Weather date:%s,precipitation:%d,temp_max:%d,temp_min:%d,wind:%d,weather:%s";
constexpr unsigned int kLongLife = 4294967295;  // seconds: about 136 years

// Small on purpose: a few thousand entries make it full often enough to show blocks at work.
constexpr Kestrun::SeriesConfig kConfig = {16 * 1024, 0};

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

std::unique_ptr<Series> OpenStore(const std::string& path) {
  Series* series = nullptr;
  Check(Series::Open(path, kConfig, &series), "open " + path);
  return std::unique_ptr<Series>(series);
}

Key KeyOf(const std::string& date) {
  return Key("seattle-" + date);
}

std::vector<Value> ValuesOf(const Day& day) {
  std::vector<Value> values = {Value::StringValue(day[0])};
  for (size_t column = 1; column <= 4; ++column) {
    values.push_back(Value::DoubleValue(std::strtod(day[column].c_str(), nullptr)));
  }
  values.push_back(Value::StringValue(day[5]));
  return values;
}

void Store(Series& series, const Day& day) {
  Check(series.AppendRecord(KeyOf(day[0]), kLongLife, kDayType, ValuesOf(day)), "store " + day[0]);
}

std::unique_ptr<Record> Fetch(Series& series, const std::string& date) {
  Record* record = nullptr;
  Check(series.Get(KeyOf(date), &record), "read " + date);
  return std::unique_ptr<Record>(record);
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
  const std::unique_ptr<Series> series = OpenStore(path);
  const std::vector<Day> days = ReadCsv(csv);
  for (const Day& day : days) Store(*series, day);
  std::cerr << "stored " << days.size() << " days\n";
}

void Verify(const std::string& path, const std::string& csv, bool changed) {
  const std::unique_ptr<Series> series = OpenStore(path);
  size_t found = 0;
  size_t absent = 0;
  for (Day day : ReadCsv(csv)) {
    const std::unique_ptr<Record> record = Fetch(*series, day[0]);
    if (changed && IsLost(day[0])) {
      if (record != nullptr || series->Contains(KeyOf(day[0]))) Fail(day[0] + " was deleted and is there");
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

// Every day of the store once, in order: the sources report a day as often as they hold it.
void ForEachDay(Series& series, const std::function<void(const std::string&, const Record&)>& visit) {
  std::map<std::string, bool> dates;
  const auto collect = [&dates](const Key& key) {
    const std::string text(reinterpret_cast<const char*>(key.Data()), key.Size());
    dates[text.substr(sizeof("seattle-") - 1)] = true;
    return false;
  };
  Check(series.EnumerateKeys("seattle-", "seattle.", collect), "list the days");
  for (const auto& entry : dates) {
    const std::unique_ptr<Record> record = Fetch(series, entry.first);
    if (record != nullptr) visit(entry.first, *record);
  }
}

void Change(const std::string& path) {
  const std::unique_ptr<Series> series = OpenStore(path);
  const std::string month = kLostMonth;
  Check(series->DeleteByRange(KeyOf(month + "-01"), KeyOf(month + "-32")), "delete " + month);
  std::vector<std::vector<Value>> feasts;
  ForEachDay(*series, [&feasts](const std::string& date, const Record& record) {
    if (!IsFeast(date)) return;
    std::vector<Value> values;
    for (unsigned int i = 0; i < 5; ++i) values.push_back(record.GetValue(i));
    values.push_back(Value::StringValue(kFeastWeather));
    feasts.push_back(values);
  });
  for (const std::vector<Value>& values : feasts) {
    Check(series->AppendRecord(KeyOf(values[0].str), kLongLife, kDayType, values),
          "rewrite " + values[0].str);
  }
  std::cerr << "deleted " << month << ", rewrote " << feasts.size() << " days\n";
}

void PrintMeans(const std::string& path) {
  struct Sum {
    double total = 0;
    int days = 0;
  };
  std::map<std::string, Sum> years;
  const std::unique_ptr<Series> series = OpenStore(path);
  ForEachDay(*series, [&years](const std::string& date, const Record& record) {
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

// Results go to standard error: the library prints its diagnostics to standard output.
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
