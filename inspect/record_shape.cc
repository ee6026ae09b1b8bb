#include "inspect/record_shape.h"

#include <cstdint>
#include <cstring>

namespace Kestrun::Inspect {
namespace {

constexpr char kFour = '4';
constexpr char kEight = '8';
constexpr char kText = 's';
constexpr char kBytes = '*';

constexpr size_t kTypeNumber = 2;

// 0 for a token that is none: such a field stores nothing.
char KindOf(std::string_view token) {
  if (token == "%i4" || token == "%f") return kFour;
  if (token == "%i8" || token == "%d") return kEight;
  if (token == "%s") return kText;
  return token == "*" ? kBytes : '\0';
}

}  // namespace

RecordShape::RecordShape(std::string_view text) {
  const size_t blank = text.find(' ');
  if (blank == std::string_view::npos) return;
  for (std::string_view left = text.substr(blank + 1); !left.empty();) {
    const std::string_view piece = left.substr(0, left.find(','));
    left.remove_prefix(piece.size() == left.size() ? piece.size() : piece.size() + 1);
    const size_t colon = piece.find(':');
    if (colon == std::string_view::npos) continue;
    canJudge_ = true;
    if (const char kind = KindOf(piece.substr(colon + 1)); kind != '\0') kinds_ += kind;
  }
  const size_t bytes = kinds_.find(kBytes);
  canJudge_ = canJudge_ && (bytes == std::string::npos || bytes + 1 == kinds_.size());
}

bool RecordShape::Fits(std::string_view value) const {
  if (value.size() <= kTypeNumber) return false;
  value.remove_prefix(kTypeNumber);
  for (const char kind : kinds_) {
    if (kind == kBytes && value.empty()) continue;
    uint64_t size = kind == kEight ? 8 : 4;
    if (value.size() < size) return false;
    if (kind == kText || kind == kBytes) {
      uint32_t length = 0;
      std::memcpy(&length, value.data(), sizeof(length));
      size += length;
    }
    if (value.size() < size) return false;
    value.remove_prefix(static_cast<size_t>(size));
  }
  return value.empty();
}

}  // namespace Kestrun::Inspect
