#include "inspect/escape.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace Kestrun::Inspect {
namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr uint64_t kLastYear9999Second = 253402300799;

bool IsContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// The length of the UTF-8 character at the start of `bytes`, 0 when there is none; `*code` is its number.
size_t DecodeCharacter(std::string_view bytes, uint32_t* code) {
  const auto at = [bytes](size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char first = at(0);
  size_t length = 0;
  uint32_t smallest = 0;
  if (first < 0x80) {
    *code = first;
    return 1;
  }
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2, smallest = 0x80, *code = first & 0x1Fu;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3, smallest = 0x800, *code = first & 0x0Fu;
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4, smallest = 0x10000, *code = first & 0x07u;
  } else {
    return 0;
  }
  if (bytes.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(at(i))) return 0;
    *code = *code << 6 | (at(i) & 0x3Fu);
  }
  const bool surrogate = *code >= 0xD800 && *code <= 0xDFFF;
  return *code < smallest || *code > 0x10FFFF || surrogate ? 0 : length;
}

// Characters that would move the cursor, end a line or turn the writing direction of what follows.
bool IsControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

// Whether a letter is shown as it is.
bool IsPlain(char letter) {
  return letter >= 0x20 && letter < 0x7F && letter != '\\';
}

}  // namespace

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    uint32_t code = 0;
    const size_t length = DecodeCharacter(bytes, &code);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string Printable(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto* const rest = std::find_if_not(bytes.begin(), bytes.end(), IsPlain);
    const auto plain = static_cast<size_t>(rest - bytes.begin());
    text.append(bytes.substr(0, plain));
    bytes.remove_prefix(plain);
    if (bytes.empty()) break;
    uint32_t code = 0;
    const size_t length = DecodeCharacter(bytes, &code);
    const size_t taken = length == 0 ? 1 : length;
    if (length != 0 && !IsControl(code)) {
      if (code == '\\') text += '\\';
      text.append(bytes.substr(0, length));
    } else if (code == '\n' && length == 1) {
      text += "\\n";
    } else if (code == '\r' && length == 1) {
      text += "\\r";
    } else if (code == '\t' && length == 1) {
      text += "\\t";
    } else {
      for (const char byte : bytes.substr(0, taken)) {
        const auto value = static_cast<unsigned char>(byte);
        const char shown[] = {'\\', 'x', kDigits[value >> 4], kDigits[value & 15]};
        text.append(shown, sizeof(shown));
      }
    }
    bytes.remove_prefix(taken);
  }
  return text;
}

std::string Hex(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += kDigits[value >> 4];
    text += kDigits[value & 15];
  }
  return text;
}

std::string UtcTime(uint64_t seconds) {
  if (seconds > kLastYear9999Second) return std::to_string(seconds);
  const auto time = static_cast<time_t>(seconds);
  struct tm parts = {};
  if (gmtime_r(&time, &parts) == nullptr) return std::to_string(seconds);
  std::array<char, 32> text{};
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return std::string(text.data(), length);
}

}  // namespace Kestrun::Inspect
