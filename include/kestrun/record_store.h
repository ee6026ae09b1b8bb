// kestrun/record_store.h: typed records on a store. New programs use this where they would use Series.
//
//   std::unique_ptr<RecordStore> readings;
//   uint32_t status = RecordStore::Open("/data/readings", {}, &readings);
//   status = readings->Put("room-12", "Reading celsius:%d,percent:%i4,place:%s", Values(21.5, 40, "window"));
//   std::unique_ptr<Record> record;
//   status = readings->Get("room-12", &record);  // null unless alive
//
// A record type is named by its text (kestrun/record_meta.h), which is numbered and kept in the file meta_v5
// at its first use, as Series does; both may be open on one directory.
//
// Ownership: as Store. Records point to their types, which live until the process ends.
// Threads:   as Store.
// Failure:   statuses; nothing throws. Values may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kestrun/export.h"
#include "kestrun/record.h"
#include "kestrun/store.h"
#include "kestrun/value.h"

namespace Kestrun {

// One value for each argument: `bool` and integers of up to 32 signed bits become Int32, wider ones Int64,
// `float` Float, `double` Double, texts String, and a Value stays what it is. An unsigned integer beyond
// Int64 becomes a value of type None, which every field refuses.
template <typename... T>
std::vector<Value> Values(const T&... values);

class KESTRUN_EXPORT RecordStore {
 public:
  // Opens the store and its record types. Statuses as Store::Open, and kStatusOpenFailed or kStatusStatFailed
  // for the file of record types.
  [[nodiscard]] static uint32_t Open(const std::string& path, const StoreOptions& options,
                                     std::unique_ptr<RecordStore>* out);
  ~RecordStore();
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;

  // Stores a record of the type `type` with one value per field, for `ttl` seconds. An integer is taken by a
  // real field and a whole real number by an integer field where nothing of it is lost; a text is taken by a
  // String or Binary field only.
  //
  // kStatusInvalid  `type` is not the text of a record type, has an unknown token, a field of the token "*"
  //                 that is not the last, a '#' or a line break; the number of values is not that of the
  //                 fields; a value can't be converted to its field's type without loss; or the key or the
  //                 `ttl` as in Store::Put
  // kStatusLockFailed    another process is recording a type, for longer than busyTimeout
  // kStatusOpenFailed    the file of record types could not be read to its end
  // kStatusCreateFailed  the type could not be recorded, for want of space perhaps or because 65,535 are
  // kStatusSyncFailed    the type could not be synced; the next call tries once more
  // After these, and after a kStatusInvalid, no record was stored. The statuses of Store::Put.
  [[nodiscard]] uint32_t Put(std::string_view key, const std::string& type, const std::vector<Value>& values,
                             unsigned int ttl = kTtlForever);

  // The record under `key`; null unless alive.
  //
  // kStatusInvalid            the stored bytes are no record, or the key as in Store::Put
  // kStatusRecordTypeUnknown  its type is not in the file of record types
  // kStatusOpenFailed         its type is not known, and that file could not be read to its end
  // The statuses of Store::Get.
  [[nodiscard]] uint32_t Get(std::string_view key, std::unique_ptr<Record>* record);

  // Adds what Put would store to a batch for Raw().Write. Statuses as Put, without those of Store::Put.
  [[nodiscard]] uint32_t AddToBatch(WriteBatch* batch, std::string_view key, const std::string& type,
                                    const std::vector<Value>& values, unsigned int ttl = kTtlForever);

  // Makes a record of the bytes of a value that was read through Raw(), a snapshot, a
  // cursor or a transaction. kStatusInvalid for fewer than 3 bytes;
  // kStatusRecordTypeUnknown and kStatusOpenFailed as Get; kStatusNoMemory.
  [[nodiscard]] uint32_t Decode(std::string_view bytes, std::unique_ptr<Record>* record);

  // The texts of the record types, in the order of their numbers. May throw std::bad_alloc.
  std::vector<std::string> Types();

  // The store beneath: Delete, Write, TakeSnapshot and the rest.
  Store& Raw();

  class Impl;

 private:
  explicit RecordStore(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

// One argument of Values.
template <typename T>
Value MakeValue(const T& value) {
  if constexpr (std::is_same_v<T, Value>) {
    return value;
  } else if constexpr (std::is_same_v<T, float>) {
    return Value::FloatValue(value);
  } else if constexpr (std::is_floating_point_v<T>) {
    static_assert(sizeof(T) <= sizeof(double), "no field holds a long double: convert it to double");
    return Value::DoubleValue(value);
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (std::numeric_limits<T>::digits <= 31) {
      return Value::Int32Value(static_cast<int>(value));
    } else if constexpr (std::numeric_limits<T>::digits <= 63) {
      return Value::Int64Value(static_cast<long>(value));
    } else {
      const bool fits = value <= static_cast<T>(std::numeric_limits<int64_t>::max());
      return fits ? Value::Int64Value(static_cast<long>(value)) : Value();
    }
  } else {
    static_assert(std::is_convertible_v<const T&, std::string_view>,
                  "a value is a number, a text or a Value");
    return Value::StringValue(std::string(std::string_view(value)));
  }
}

template <typename... T>
std::vector<Value> Values(const T&... values) {
  std::vector<Value> result;
  result.reserve(sizeof...(values));
  (result.push_back(MakeValue(values)), ...);
  return result;
}

}  // namespace Kestrun
