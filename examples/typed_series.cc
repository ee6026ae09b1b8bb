// A typed series: records with named fields, read back by name. Takes the directory of the store.
#include <iostream>
#include <memory>

#include "kestrun/kestrun.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: typed_series STORE\n";
    return 2;
  }
  Kestrun::Series* opened = nullptr;
  if (Kestrun::Series::Open(argv[1], {64 * 1024, 0}, &opened) != Kestrun::kStatusOk) return 1;
  const std::unique_ptr<Kestrun::Series> series(opened);

  // One argument for each field; the type is made known to the store by its first use.
  const uint32_t status = series->AppendRecord("room-12", 3600, "Reading celsius:%d,percent:%i4,place:%s",
                                               21.5, 40, "by the window");
  if (status != Kestrun::kStatusOk) {
    std::cerr << Kestrun::StatusText(status) << '\n';
    return 1;
  }

  Kestrun::Record* found = nullptr;  // stays null when there is no such key
  if (series->Get("room-12", &found) != Kestrun::kStatusOk || found == nullptr) return 1;
  const std::unique_ptr<Kestrun::Record> record(found);
  std::cerr << record->GetValue("celsius").numeric.f64 << " degrees and "
            << record->GetValue("percent").numeric.i32 << " percent " << record->GetValue("place").str
            << '\n';
  return 0;
}
