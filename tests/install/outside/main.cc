// A program that knows nothing of the source tree: it is built against what was installed and uses a bit of
// everything. The first argument is a directory for its store; the outcome is one line on standard error,
// since standard output belongs to the library's diagnostics.
#include <kestrun/kestrun.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

bool failed = false;

void Expect(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "FAILED: %s\n", what);
  failed = true;
}

void UseValues(const std::string& path) {
  Kestrun::LSDBImpl* opened = nullptr;
  Expect(Kestrun::LSDBImpl::Open(path, {64 * 1024, 0}, &opened) == Kestrun::kStatusOk, "open a store");
  if (opened == nullptr) return;
  const std::unique_ptr<Kestrun::LSDBImpl> store(opened);

  Expect(store->Insert("city-seattle", 3600, "rain", 4) == Kestrun::kStatusOk, "insert");
  Expect(store->ResetWal() == Kestrun::kStatusOk, "flush");
  const void* value = nullptr;
  unsigned int size = 0;
  Expect(store->Get("city-seattle", &value, &size) == Kestrun::kStatusOk, "get");
  Expect(size == 4 && std::memcmp(value, "rain", 4) == 0, "the value that was stored");
  std::free(const_cast<void*>(value));

  int visited = 0;
  store->EnumerateKeys(Kestrun::Key::MinKey(), Kestrun::Key::MaxKey(), [&visited](const Kestrun::Key& key) {
    Expect(key.GetPrimary() == Kestrun::Key("city"), "the key's primary");
    ++visited;
    return false;
  });
  Expect(visited == 1, "one key is visited");
}

void UseRecords(const std::string& path) {
  Kestrun::Series* opened = nullptr;
  Expect(Kestrun::Series::Open(path, {64 * 1024, 0}, &opened) == Kestrun::kStatusOk, "open a series");
  if (opened == nullptr) return;
  const std::unique_ptr<Kestrun::Series> series(opened);

  const char* const format = "Weather date:%s,wind:%d,station:%i4";
  Expect(series->AppendRecord("w-1", 3600, format, "2012-01-01", 4.7, 17) == Kestrun::kStatusOk, "append");
  Kestrun::Record* read = nullptr;
  Expect(series->Get("w-1", &read) == Kestrun::kStatusOk && read != nullptr, "read a record");
  const std::unique_ptr<Kestrun::Record> record(read);
  if (record == nullptr) return;
  Expect(record->GetValue("date").str == "2012-01-01", "a text field");
  Expect(record->GetValue("wind").numeric.f64 == 4.7, "a real number");
  Expect(record->GetValue(2).numeric.i32 == 17, "an integer");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string directory = argv[1];
  UseValues(directory + "/values");
  UseRecords(directory + "/records");
  Expect(std::string(Kestrun::Version()) == std::to_string(KESTRUN_VERSION_MAJOR) + "." +
                                                std::to_string(KESTRUN_VERSION_MINOR) + "." +
                                                std::to_string(KESTRUN_VERSION_PATCH),
         "the library's version is the headers'");
  if (!failed) std::fprintf(stderr, "Kestrun %s works with C++ %ld\n", Kestrun::Version(), __cplusplus);
  return failed ? 1 : 0;
}
