#include "inspect/type_check.h"

#include "inspect/escape.h"

namespace Kestrun::Inspect {
namespace {

std::set<uint16_t> NumbersOf(const std::map<uint16_t, std::string>& types) {
  std::set<uint16_t> numbers;
  for (const auto& [id, text] : types) numbers.insert(id);
  return numbers;
}

}  // namespace

TypeCheck::TypeCheck(const std::map<uint16_t, std::string>& types, bool hadTypes)
    : hadTypes_(hadTypes), unknown_(NumbersOf(types)), misfits_({}) {
  for (const auto& [id, text] : types) known_.emplace(id, Known{text, RecordShape(text), 0, 0});
}

bool TypeCheck::Add(std::string_view value) {
  unknown_.Add(value);
  if (value.size() < 3) return true;
  const auto id =
      static_cast<uint16_t>(static_cast<unsigned char>(value[0]) | static_cast<unsigned char>(value[1]) << 8);
  const auto type = known_.find(id);
  if (type == known_.end() || !type->second.shape.CanJudge()) return true;
  ++type->second.values;
  if (type->second.shape.Fits(value)) return true;
  ++type->second.misfits;
  misfits_.Add(value);
  return false;
}

std::vector<TypeFinding> TypeCheck::Findings() const {
  std::map<uint16_t, std::string> guesses;
  for (const GuessedType& guess : misfits_.Guess()) guesses[guess.id] = guess.text;
  std::vector<TypeFinding> findings;
  for (const auto& [id, type] : known_) {
    if (type.misfits == 0) continue;
    findings.push_back(
        {id, type.text, type.values, type.misfits, guesses[id], type.misfits * 2 > type.values});
  }
  for (const GuessedType& type : unknown_.Guess()) {
    if (!unknown_.IsLikely(type)) continue;
    findings.push_back(
        {type.id, "", type.values, type.values, type.text, hadTypes_ || TypeGuess::HasText(type)});
  }
  return findings;
}

std::string TypeCheck::TextOf(const TypeFinding& finding) {
  const std::string number = std::to_string(finding.id);
  if (finding.text.empty()) {
    return std::to_string(finding.values) +
           (finding.values == 1 ? " value looks like a record" : " values look like records") +
           " of the type " + number + ", which is not known";
  }
  const std::string share = finding.misfits == finding.values ? "" : std::to_string(finding.misfits) + " of ";
  const bool one = finding.misfits == 1;
  return share + std::to_string(finding.values) + (finding.values == 1 ? " value" : " values") +
         " of the type " + number + (one ? " does" : " do") + " not hold the fields of '" +
         Printable(finding.text) + "'";
}

}  // namespace Kestrun::Inspect
