// Typed records: named fields, read back by name, one by one and in order. Takes the directory of the store.
#include <iostream>
#include <memory>
#include <string>

#include "kestrun/kestrun.h"

using Kestrun::kStatusOk;
using Kestrun::Values;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: typed_records STORE\n";
    return 2;
  }
  std::unique_ptr<Kestrun::RecordStore> readings;
  if (Kestrun::RecordStore::Open(argv[1], {}, &readings) != kStatusOk) return 1;

  // One value for each field; the type is made known to the store by its first use.
  const std::string type = "Reading celsius:%d,percent:%i4,place:%s";
  if (readings->Put("room-12", type, Values(21.5, 40, "by the window"), 3600) != kStatusOk) return 1;

  // Several records at once. 19 is a whole number, and a %d field takes it as 19.0.
  Kestrun::WriteBatch batch;
  if (readings->AddToBatch(&batch, "room-13", type, Values(19, 55, "in the cellar")) != kStatusOk) return 1;
  if (readings->AddToBatch(&batch, "room-14", type, Values(23.25, 35, "under the roof")) != kStatusOk)
    return 1;
  if (readings->Raw().Write(batch) != kStatusOk) return 1;

  // What does not fit is a status and stores nothing.
  if (readings->Put("room-15", type, Values("warm", 40, "outside")) != Kestrun::kStatusInvalid) return 1;

  std::unique_ptr<Kestrun::Record> record;
  if (readings->Get("room-12", &record) != kStatusOk || record == nullptr) return 1;
  std::cerr << record->GetValue("celsius").numeric.f64 << " degrees and "
            << record->GetValue("percent").numeric.i32 << " percent " << record->GetValue("place").str
            << '\n';

  std::unique_ptr<Kestrun::Snapshot> snapshot;
  if (readings->Raw().TakeSnapshot(&snapshot) != kStatusOk) return 1;
  std::unique_ptr<Kestrun::Cursor> cursor;
  if (snapshot->NewCursor(Kestrun::Range::Prefix("room-"), &cursor) != kStatusOk) return 1;
  double sum = 0;
  int count = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next(), ++count) {
    std::string_view bytes;
    if (cursor->Value(&bytes) != kStatusOk || readings->Decode(bytes, &record) != kStatusOk) return 1;
    sum += record->GetValue("celsius").numeric.f64;
  }
  if (cursor->Status() != kStatusOk || count == 0) return 1;
  std::cerr << count << " rooms, " << sum / count << " degrees on average\n";
  return 0;
}
