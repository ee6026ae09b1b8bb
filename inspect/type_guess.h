// inspect/type_guess.h: which record types the values of a store may have, where the file that tells is lost.
//
// A record begins with the number of its type, which a store counts from 1, and its fields follow back to
// back. What fits all the values of one number is its type, as far as bytes can tell: names are lost, and of
// four bytes nobody knows whether they were a whole number or a small real one.
//
// Threads: one at a time. Failure: may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrun::Inspect {

struct GuessedType {
  uint16_t id = 0;
  uint64_t values = 0;  // that begin with the number
  std::string text;     // of the record type; empty where nothing fits all of the values
};

class TypeGuess {
 public:
  // Looks at the values whose numbers are not in `known`.
  explicit TypeGuess(std::set<uint16_t> known) : known_(std::move(known)) {}

  // False for a value that can't be a record of a number that is not known.
  bool Add(std::string_view value);
  // Texts with their lengths are hardly there by chance. Other types are likely where all values that have no
  // number of a known type are records.
  static bool HasText(const GuessedType& type) { return type.text.find("%s") != std::string::npos; }
  bool IsLikely(const GuessedType& type) const;
  // The numbers that were met, in ascending order.
  std::vector<GuessedType> Guess() const;

 private:
  struct Samples {
    uint64_t values = 0;
    std::vector<std::string> bodies;
  };

  std::set<uint16_t> known_;
  uint64_t looked_ = 0;
  uint64_t counted_ = 0;
  std::map<uint16_t, Samples> samples_;
};

// The numbers and texts of the record types that the schema file in `directory` holds; empty without one.
// `*damage` says what is wrong with the file, when something is.
std::map<uint16_t, std::string> ReadRecordTypeTexts(const std::string& directory, std::string* damage);

}  // namespace Kestrun::Inspect
