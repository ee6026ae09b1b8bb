// tools/row_decoder.h: what a row of a file becomes in a store.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kestrun/record_meta.h"
#include "kestrun/value.h"
#include "tools/key_template.h"
#include "tools/rows.h"

namespace Kestrun::Tools {

struct DecodedRow {
  std::string key;
  uint32_t ttl = 0;
  const std::string* type = nullptr;  // the text of a record type; null for a raw value
  std::vector<Value> values;          // of a record
  std::string value;                  // a raw one
};

// What a row becomes:
//
//   with --type             a record of the columns that its fields name
//   with a column "type"    a record of the type that it names by its text, or a raw value where it is null
//   CSV or TSV with --key   the row as it stands
//   else                    the column "value"
//
// The key is made by --key, else it is the column "key".
class RowDecoder {
 public:
  // Throws UsageError for options, and for columns that every row has, that do not fit.
  RowDecoder(const Invocation& line, const RowSource& source, RowFormat format);

  // Decodes `row` into `*decoded`; otherwise false, with the reason in `*why`.
  bool Decode(const Row& row, DecodedRow* decoded, std::string* why);

 private:
  struct Typed {
    std::string text;
    std::unique_ptr<RecordMeta> meta;
    std::vector<size_t> columns;  // of the fields, in the rows of this shape
    uint64_t shape = 0;
    std::string problem;
  };

  std::string Bind(const std::vector<std::string>& names);
  bool DecodeTyped(const Row& row, Typed* typed, DecodedRow* decoded, std::string* why);
  bool DecodeRaw(const Row& row, DecodedRow* decoded, std::string* why);
  bool DecodeTtl(const Row& row, DecodedRow* decoded, std::string* why);
  Typed* TypeNamed(std::string_view text, std::string* why);

  bool hex_;
  bool wholeRow_;
  bool withEntry_;
  uint32_t ttl_;
  KeyTemplate key_;
  std::deque<Typed> types_;
  bool hasType_ = false;            // --type was given: types_ holds it alone
  std::vector<std::string> bytes_;  // what Binary values of the row point to

  uint64_t shape_ = 0;
  std::string problem_;  // of the columns of the present shape
  size_t valueColumn_ = 0;
  size_t typeColumn_ = 0;
  size_t ttlColumn_ = 0;
};

}  // namespace Kestrun::Tools
