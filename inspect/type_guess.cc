#include "inspect/type_guess.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "inspect/escape.h"
#include "inspect/schema_lines.h"
#include "inspect/store_directory.h"

namespace Kestrun::Inspect {
namespace {

constexpr uint16_t kMaxId = 1024;  // a store counts its record types from 1
constexpr size_t kMaxSamples = 64;
constexpr size_t kMaxSample = 4096;
constexpr size_t kMaxFields = 64;

using Bodies = std::vector<std::string>;
using Places = std::vector<size_t>;  // in each of the bodies

uint32_t Load32(const std::string& body, size_t at) {
  uint32_t number = 0;
  std::memcpy(&number, body.data() + at, sizeof(number));
  return number;
}

bool IsText(std::string_view text) {
  return IsUtf8(text) && std::none_of(text.begin(), text.end(), [](char letter) {
           return static_cast<unsigned char>(letter) < 0x20 && letter != '\n' && letter != '\t' &&
                  letter != '\r';
         });
}

// A real number that people or sensors write: neither tiny nor huge.
template <typename Real>
bool LooksReal(const std::string& body, size_t at) {
  Real number = 0;
  std::memcpy(&number, body.data() + at, sizeof(number));
  return number == 0 || (std::isfinite(number) && std::fabs(number) > 1e-9 && std::fabs(number) < 1e15);
}

template <typename Real>
bool AnyIsNotZero(const Bodies& bodies, const Places& places) {
  for (size_t i = 0; i < bodies.size(); ++i) {
    Real number = 0;
    std::memcpy(&number, bodies[i].data() + places[i], sizeof(number));
    if (number != 0) return true;
  }
  return false;
}

class Search {
 public:
  explicit Search(const Bodies& bodies) : bodies_(bodies) {}

  // Finds tokens that use up every body; the likeliest first.
  bool Run(const Places& places, std::vector<const char*>* tokens) {
    if (++steps_ > 20000) return false;
    if (AtEnd(places)) return !tokens->empty();
    if (tokens->size() == kMaxFields) return false;
    for (const char* token : {"%s", "%d", "%i4", "%f", "%i8", kEmptyTexts}) {
      Places next = places;
      if (!Fits(token, &next)) continue;
      // Texts that are all empty are likelier a number that is 0.
      const bool allEmpty = token[1] == 's' && AreEmpty(places, next);
      if (allEmpty != (token == kEmptyTexts)) continue;
      tokens->push_back(token);
      if (Run(next, tokens)) return true;
      tokens->pop_back();
    }
    // Bytes may be anything, and stand last.
    Places next = places;
    if (!Advance(&next, true, false) || !AtEnd(next)) return false;
    tokens->push_back("*");
    return true;
  }

 private:
  static constexpr const char* kEmptyTexts = "%s ";

  static bool AreEmpty(const Places& places, const Places& next) {
    for (size_t i = 0; i < places.size(); ++i) {
      if (next[i] - places[i] != 4) return false;
    }
    return true;
  }

  bool AtEnd(const Places& places) const {
    for (size_t i = 0; i < bodies_.size(); ++i) {
      if (places[i] != bodies_[i].size()) return false;
    }
    return true;
  }

  bool Fits(const char* token, Places* places) const {
    if (token[1] == 's') return Advance(places, false, true);
    const bool wide = std::strcmp(token, "%d") == 0 || std::strcmp(token, "%i8") == 0;
    const size_t size = wide ? 8 : 4;
    for (size_t i = 0; i < bodies_.size(); ++i) {
      if (bodies_[i].size() - (*places)[i] < size) return false;
    }
    if (std::strcmp(token, "%d") == 0 && !AllLookReal<double>(*places)) return false;
    if (std::strcmp(token, "%f") == 0 && !AllLookReal<float>(*places)) return false;
    // Whole numbers of four bytes that all look like real ones are real ones.
    if (std::strcmp(token, "%i4") == 0 && AllLookReal<float>(*places)) return false;
    for (size_t& place : *places) place += size;
    return true;
  }

  template <typename Real>
  bool AllLookReal(const Places& places) const {
    for (size_t i = 0; i < bodies_.size(); ++i) {
      if (!LooksReal<Real>(bodies_[i], places[i])) return false;
    }
    return AnyIsNotZero<Real>(bodies_, places);
  }

  // Over a length and as many bytes.
  bool Advance(Places* places, bool mayBeEmpty, bool isText) const {
    for (size_t i = 0; i < bodies_.size(); ++i) {
      size_t& place = (*places)[i];
      const size_t left = bodies_[i].size() - place;
      if (left == 0 && mayBeEmpty) continue;
      if (left < 4) return false;
      const uint32_t length = Load32(bodies_[i], place);
      if (length > left - 4) return false;
      if (isText && !IsText(std::string_view(bodies_[i]).substr(place + 4, length))) return false;
      place += 4 + length;
    }
    return true;
  }

  const Bodies& bodies_;
  int steps_ = 0;
};

}  // namespace

bool TypeGuess::Add(std::string_view value) {
  const uint16_t id = value.size() < 3 ? uint16_t{0}
                                       : static_cast<uint16_t>(static_cast<unsigned char>(value[0]) |
                                                               static_cast<unsigned char>(value[1]) << 8);
  if (known_.count(id) != 0 && id != 0) return false;
  ++looked_;
  if (id == 0 || id > kMaxId) return false;
  Samples& samples = samples_[id];
  ++samples.values;
  if (samples.bodies.size() < kMaxSamples && value.size() <= kMaxSample)
    samples.bodies.emplace_back(value.substr(2));
  ++counted_;
  return true;
}

bool TypeGuess::IsLikely(const GuessedType& type) const {
  return !type.text.empty() && (HasText(type) || counted_ == looked_);
}

std::vector<GuessedType> TypeGuess::Guess() const {
  std::vector<GuessedType> guesses;
  for (const auto& [id, samples] : samples_) {
    GuessedType guess{id, samples.values, std::string()};
    std::vector<const char*> tokens;
    if (!samples.bodies.empty() && Search(samples.bodies).Run(Places(samples.bodies.size()), &tokens)) {
      guess.text = "Recovered" + std::to_string(id);
      for (size_t i = 0; i < tokens.size(); ++i) {
        guess.text += (i == 0 ? " field" : ",field") + std::to_string(i + 1) + ":" +
                      std::string(tokens[i], std::strcspn(tokens[i], " "));
      }
    }
    guesses.push_back(std::move(guess));
  }
  return guesses;
}

std::map<uint16_t, std::string> ReadRecordTypeTexts(const std::string& directory, std::string* damage) {
  std::map<uint16_t, std::string> texts;
  damage->clear();
  std::string why;
  const std::optional<StoreDirectory> files = ListStore(directory, &why);
  if (!files || !files->hasSchema) return texts;
  const auto file = ReadOnlyFile::Open(SchemaPath(directory), damage);
  if (!file) return texts;
  const bool whole = ScanSchema(*file, [&](const SchemaLineView& line) {
    if (!line.ended) {
      if (damage->empty()) *damage = "the line at " + std::to_string(line.offset) + " has no end";
    } else if (line.IsRecordType() && !line.textIsCut && line.idIsPlain) {
      texts[line.id] = line.text;
    } else if (damage->empty()) {
      *damage = "the line at " + std::to_string(line.offset) + " is not a record type";
    }
    return true;
  });
  if (!whole) *damage = "the file can't be read to its end";
  return texts;
}

}  // namespace Kestrun::Inspect
