// kestrun/record_meta.h: record types, and the one-line language in which they are written.
//
//   Point x:%i4,y:%i4,label:%s
//
// A type name, one blank, then fields separated by commas, each a name, a colon and a type token:
//
//   %i4  Int32     %f  Float     %s  String
//   %i8  Int64     %d  Double    *   Binary     anything else: None, a field that stores nothing
//
// Ownership: a RecordMeta owns its fields. Records keep a pointer to their RecordMeta, which must outlive
//            them; those that a Series hands out live until the process ends.
// Threads:   a RecordMeta that nobody changes may be read from any number of threads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrun/export.h"
#include "kestrun/value.h"

namespace Kestrun {

struct Field {
  std::string name;  // as written: blanks belong to it, and it may be empty
  ValueType type;
};

class KESTRUN_EXPORT RecordMeta {
 public:
  // Takes over the fields; they are deleted with the record type.
  RecordMeta(unsigned short id, std::string text, std::string name, std::vector<Field*> fields);
  ~RecordMeta();
  RecordMeta(const RecordMeta&) = delete;
  RecordMeta& operator=(const RecordMeta&) = delete;

  // The record type that `text` describes, with the number `id`; the caller deletes it. Null when there is
  // nothing after the first blank, or no blank, and when memory runs out. Everything else is accepted:
  //
  // - a field without a colon, without anything after its colon, or without any text is left out;
  // - a field with an unknown token, a second colon included, stays, with type None;
  // - names are not checked: they may be empty, occur twice or begin with the blank after a comma.
  static RecordMeta* Create(unsigned short id, const std::string& text);

  // Two record types are the same when their texts are, byte for byte. Nothing else is compared.
  bool operator==(const RecordMeta& other) const;
  bool operator!=(const RecordMeta& other) const;

  unsigned short id;  // leads every stored record of this type
  std::string text;   // the whole text, type name included
  std::string name;   // the part before the first blank; may be empty
  std::vector<Field*> fields;
};

// The type that `token` stands for: exactly as in the table above, capitals count. Never fails.
KESTRUN_EXPORT ValueType ParseValueType(const std::string& token);

// Appends the pieces of `text` between the separators to `pieces`, at most `limit` of them: the last one
// then holds the rest, separators included. A leading separator and two adjacent ones give an empty piece,
// one at the end gives none. A limit of 0 counts as no limit, an empty separator as one that does not occur.
// Throws nothing but std::bad_alloc.
KESTRUN_EXPORT void SplitString(const std::string& text, std::vector<std::string>& pieces,
                                const std::string& separator, uint32_t limit);
// The same without a limit.
KESTRUN_EXPORT void SplitString(const std::string& text, std::vector<std::string>& pieces,
                                const std::string& separator);

}  // namespace Kestrun
