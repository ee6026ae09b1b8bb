// inspect/record_shape.h: whether the bytes of a value hold the fields of a record type.
//
// Threads: safe. Failure: may throw std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace Kestrun::Inspect {

class RecordShape {
 public:
  // The text of a record type, such as "Point x:%i4,label:%s".
  explicit RecordShape(std::string_view text);

  // False for a type without fields, and for one with bytes before other fields, which nothing reads back: no
  // value can be told by them.
  bool CanJudge() const { return canJudge_; }
  // Whether the value is as long as the fields are, after the two bytes of the type's number.
  bool Fits(std::string_view value) const;

 private:
  std::string kinds_;  // a letter for each field: 4 or 8 bytes, a text, bytes
  bool canJudge_ = false;
};

}  // namespace Kestrun::Inspect
