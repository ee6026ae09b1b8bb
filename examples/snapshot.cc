// A view that stands still: a snapshot is walked in both directions while the store changes. Takes
// the directory of the store.
#include <iostream>
#include <memory>
#include <string>

#include "kestrun/kestrun.h"

using Kestrun::kStatusOk;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: snapshot STORE\n";
    return 2;
  }
  std::unique_ptr<Kestrun::Store> store;
  if (Kestrun::Store::Open(argv[1], {}, &store) != kStatusOk) return 1;
  for (const char* city : {"city/Oslo", "city/Bern", "city/Rome", "river/Aare"}) {
    if (store->Put(city, "there") != kStatusOk) return 1;
  }

  std::unique_ptr<Kestrun::Snapshot> snapshot;
  if (store->TakeSnapshot(&snapshot) != kStatusOk) return 1;
  if (store->DeleteRange(Kestrun::Range::Prefix("city/")) != kStatusOk) return 1;
  if (store->Put("city/Lima", "new") != kStatusOk || store->Flush() != kStatusOk) return 1;

  std::unique_ptr<Kestrun::Cursor> cursor;
  if (snapshot->NewCursor(Kestrun::Range::Prefix("city/"), &cursor) != kStatusOk) return 1;
  std::string forwards;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) forwards += std::string(cursor->Key()) + " ";
  std::string backwards;
  for (cursor->SeekToLast(); cursor->Valid(); cursor->Prev()) backwards += std::string(cursor->Key()) + " ";
  if (cursor->Status() != kStatusOk) return 1;  // what ended the walk, if it was not the end
  std::cerr << "then: " << forwards << "and " << backwards << '\n';

  std::unique_ptr<Kestrun::Snapshot> now;
  if (store->TakeSnapshot(&now) != kStatusOk || now->NewCursor(Kestrun::Range::All(), &cursor) != kStatusOk)
    return 1;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) {
    std::string_view value;
    if (cursor->Value(&value) != kStatusOk) return 1;
    std::cerr << "now: " << cursor->Key() << " is " << value << '\n';
  }
  return cursor->Status() == kStatusOk ? 0 : 1;
}
