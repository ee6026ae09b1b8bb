// kestrun/record.h: one typed record, and the bytes in which a store keeps it.
//
//   offset 0   2 bytes   number of the record type
//   offset 2   the fields in the order of the record type, back to back; integers little-endian
//
//   Int32, Float     4 bytes                    String   4 bytes length, then the text without a NUL
//   Int64, Double    8 bytes                    Binary   4 bytes length, then the bytes; nothing when empty
//   None             nothing
//
// docs/internals/format/record.md shows a record byte by byte.
//
// Ownership: a record keeps a pointer to its record type, which must outlive it. A record made from bytes
//            owns them, and its Binary values point into them. The Binary values of any other record point
//            at bytes of the caller.
// Threads:   a record that nobody changes may be read and encoded from any number of threads.
// Failure:   the constructors and GetValue may throw std::bad_alloc; Capacity may abort; nothing else fails.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrun/export.h"
#include "kestrun/record_meta.h"
#include "kestrun/value.h"

namespace Kestrun {

class KESTRUN_EXPORT Record {
 public:
  // Reads one argument per field, as its type says: int for Int32, long for Int64, double for Float and
  // Double, const char* for String (null counts as empty text). A Binary or None field reads no argument and
  // gets no value, so that the values after it stand one place too early.
  Record(const RecordMeta* meta, va_list args);

  // Keeps the values as they are. Their number and types are not checked; see Capacity and Encode.
  Record(const RecordMeta* meta, std::vector<Value> values);

  // Decodes `size` bytes and takes over `buffer`, which must come from malloc; when the constructor throws,
  // the buffer stays the caller's. Fewer than 3 bytes give no values, and the record type's number in the
  // bytes is not compared with `meta`. Nothing outside the buffer is read: bytes that a cut-off value would
  // need count as zero.
  //
  // - A String longer than `size` decodes as empty text and ends the decoding.
  // - A Binary field is decoded, but the next field is read from the first byte after its length: only as
  //   the last field does Binary lead to a record that reads as it was written. A Binary that is empty or
  //   cut off gives no value.
  // Stored records are read that way by every version. Compat: binary-not-last, binary-empty
  Record(const RecordMeta* meta, unsigned char* buffer, unsigned int size);

  ~Record();
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  // The number of bytes that Encode needs, measured over the values as they are: a String field counts the
  // text that its value holds, a Binary field 4 more than its value's size, empty or not.
  //
  // Aborts the process when there is no value for a String or Binary field, in every build.
  unsigned int Capacity() const;

  // Writes the record's bytes to `out`. Each value is converted to its field's type on the way
  // (Value::ConvertTo), the record itself stays as it is. A missing value counts as 0, as empty text and as
  // empty Binary.
  //
  // Writes at most Capacity() bytes where every String field has a String value. A number in a String field
  // is written as its text, for which Capacity has no room: convert such a value first, or use
  // Series::AppendRecord, which makes room. An empty Binary writes nothing, 4 bytes less than its Capacity.
  void Encode(unsigned char* out);

  // The value in place `index`, counting values and not fields; a value of type None when there is none.
  Value GetValue(unsigned int index) const;
  // The value in the place of the first field called `name`; a value of type None when there is no such
  // field or no value in its place. A record that skipped a field (above) has other values in the places
  // after it.
  Value GetValue(const std::string& name) const;

 private:
  friend class RecordStore;
  friend class Series;

  // The bytes that a store keeps: the larger of Capacity, before it wraps at 4 GiB, and what
  // Encode writes. Aborts like Capacity.
  uint64_t StoredSize() const;

  const RecordMeta* meta_;
  std::vector<Value> values_;
  unsigned char* buffer_;  // what the record was decoded from; null otherwise
};

}  // namespace Kestrun
