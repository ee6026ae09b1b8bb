#include "inspect/field_writer.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "inspect/escape.h"

namespace Kestrun::Inspect {
namespace {

constexpr uint64_t kPiece = uint64_t{64} << 10;
constexpr uint64_t kRow = 16;

bool IsZero(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
}

}  // namespace

void FieldWriter::Field(uint64_t size, const std::string& name, const std::string& meaning) {
  Copy(size, name, meaning, false);
}

void FieldWriter::Filler(uint64_t end, const std::string& name) {
  if (end > position_) Copy(end - position_, name, std::string(), true);
}

void FieldWriter::Copy(uint64_t size, const std::string& name, std::string meaning, bool foldZeros) {
  size = std::min(size, file_.Size() - position_);
  const uint64_t end = position_ + size;
  uint64_t zeros = 0;
  const auto flushZeros = [&](uint64_t at) {
    if (zeros != 0) sink_->Zeros(at - zeros, zeros, name);
    zeros = 0;
  };

  std::string bytes;
  while (!failed_ && position_ < end) {
    bytes.resize(static_cast<size_t>(std::min(kPiece, end - position_)));
    if (!window_.ReadAt(position_, bytes.data(), bytes.size())) {
      failed_ = true;
      break;
    }
    if (!foldZeros) {
      sink_->Field(position_, bytes, name, meaning);
      meaning.clear();
    }
    // Rows of zeros are folded one by one, so that a little old data in a large free area stands out.
    for (size_t row = 0; foldZeros && row < bytes.size(); row += kRow) {
      const std::string_view rowBytes = std::string_view(bytes).substr(row, kRow);
      if (IsZero(rowBytes)) {
        zeros += rowBytes.size();
      } else {
        flushZeros(position_ + row);
        sink_->Field(position_ + row, rowBytes, name, meaning);
      }
    }
    position_ += bytes.size();
  }
  flushZeros(position_);
}

std::string ChecksumMeaning(uint32_t stored, uint32_t computed) {
  if (stored == computed) return "right";
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "wrong: should be %08x", computed);
  return text.data();
}

std::string TimeMeaning(uint64_t seconds) {
  return std::to_string(seconds) + ", " + UtcTime(seconds);
}

}  // namespace Kestrun::Inspect
