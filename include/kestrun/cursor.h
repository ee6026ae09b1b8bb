// kestrun/cursor.h: walks the keys of a snapshot in order, in both directions.
//
//   for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) Use(cursor->Key());
//   if (cursor->Status() != kStatusOk) ...
//
// A cursor shows each key of its range that was alive when its snapshot was taken,
// once, in unsigned byte order.
//
// Ownership: Snapshot::NewCursor hands it out; it may outlive its snapshot and its store.
// Threads:   one thread at a time; different cursors of one snapshot may be used at once.
// Failure:   a failure ends the walk: Valid is false and Status tells. A new Seek tries again.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "kestrun/data_entry.h"
#include "kestrun/export.h"

namespace Kestrun {

class KESTRUN_EXPORT Cursor {
 public:
  ~Cursor();
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  // Stand on the first or the last key of the range; not Valid when there is none.
  void SeekToFirst();
  void SeekToLast();
  // Stands on the first key of the range that is not before `key`.
  void Seek(std::string_view key);
  // Stands on the last key of the range that is not after `key`.
  void SeekForPrev(std::string_view key);
  // One key on or back; without effect unless Valid. Past an end the cursor is not Valid, and
  // stays so until a Seek.
  void Next();
  void Prev();

  // Whether the cursor stands on a key. False before the first Seek, past either end, and after a failure.
  bool Valid() const;
  // kStatusOk while Valid and at an end; else what ended the walk, with the statuses of Store::Get.
  [[nodiscard]] uint32_t Status() const;

  // The key that the cursor stands on, until the cursor moves; empty unless Valid.
  std::string_view Key() const;
  // The value of that key, until the cursor moves; read on demand.
  //
  // kStatusInvalid                                the cursor is not Valid
  // kStatusBlockCorrupt, kStatusBlockShortRead    the value can't be read; the cursor stays where it is
  // kStatusNoMemory
  [[nodiscard]] uint32_t Value(std::string_view* bytes);
  // The size, the times and the remaining description of the entry; its valueOffset has no meaning
  // here. All zero unless Valid.
  const DataEntry& Entry() const;

  class Impl;

 private:
  friend class Snapshot;

  explicit Cursor(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace Kestrun
