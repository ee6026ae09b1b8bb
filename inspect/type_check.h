// inspect/type_check.h: whether the values of a store are what its record types say.
//
// A store does not write down which values are records. Values whose first bytes are the number of a
// type are taken for its records, and those whose number nobody knows for what TypeGuess finds.
//
// Threads: one at a time. Failure: may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/record_shape.h"
#include "inspect/type_guess.h"

namespace Kestrun::Inspect {

struct TypeFinding {
  uint16_t id = 0;
  std::string text;      // of the record type; empty where its number is not known
  uint64_t values = 0;   // with the number
  uint64_t misfits = 0;  // of them, those that do not hold the fields of the type
  std::string guess;     // the text of a record type that fits them; empty where none does
  // Hardly by chance: most of them do not fit, or they are records of a type that was lost.
  bool isDamage = false;
};

class TypeCheck {
 public:
  // The types that are known; `hadTypes` where a file tells that there were any, whatever is left of it.
  TypeCheck(const std::map<uint16_t, std::string>& types, bool hadTypes);

  // False for a value that has the number of a type and not its fields.
  bool Add(std::string_view value);
  // What was found in ascending order of the numbers, the known ones first.
  std::vector<TypeFinding> Findings() const;
  // What a finding says, as a part of a sentence.
  static std::string TextOf(const TypeFinding& finding);

 private:
  struct Known {
    std::string text;
    RecordShape shape;
    uint64_t values = 0;
    uint64_t misfits = 0;
  };

  std::map<uint16_t, Known> known_;
  bool hadTypes_;
  TypeGuess unknown_;
  TypeGuess misfits_;
};

}  // namespace Kestrun::Inspect
