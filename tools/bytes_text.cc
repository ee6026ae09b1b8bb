#include "tools/bytes_text.h"

#include <algorithm>

#include "format/file_names.h"
#include "inspect/escape.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

int DigitOf(char letter) {
  if (letter >= '0' && letter <= '9') return letter - '0';
  if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
  if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> BytesOfHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int high = DigitOf(hex[i]);
    const int low = DigitOf(hex[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

bool IsHex(const Invocation& line) {
  return line.Has("--hex");
}

bool IsJson(const Invocation& line) {
  return line.Has("--json");
}

std::string BytesOf(const Invocation& line, const std::string& text, const std::string& what) {
  if (!IsHex(line)) return text;
  const auto bytes = BytesOfHex(text);
  if (!bytes) {
    throw UsageError(what + " takes pairs of hexadecimal digits with --hex, not \"" +
                     Inspect::Printable(text) + "\"");
  }
  return *bytes;
}

std::string WhyNoKey(std::string_view bytes) {
  if (bytes.empty()) return "can't be empty: a key has 1 to 65535 bytes";
  if (bytes.size() > kMaxKey)
    return "has " + std::to_string(bytes.size()) + " bytes; a key has at most 65535";
  if (static_cast<unsigned char>(bytes.front()) >= kFirstUnflushedByte) {
    return "begins with the byte 0xFF, with which no key can begin";
  }
  return std::string();
}

std::string KeyOf(const Invocation& line, const std::string& text, const std::string& what) {
  std::string bytes = BytesOf(line, text, what);
  if (const std::string why = WhyNoKey(bytes); !why.empty()) throw UsageError(what + " " + why);
  return bytes;
}

Range RangeOf(const Invocation& line) {
  Range range;
  if (const std::string* prefix = line.Find("--prefix"))
    range = Range::Prefix(BytesOf(line, *prefix, "--prefix"));
  std::string from;
  std::string to;
  // An empty lower bound is the beginning; an empty upper one would leave nothing and is a slip.
  if (const std::string* text = line.Find("--from")) from = BytesOf(line, *text, "--from");
  if (const std::string* text = line.Find("--to")) {
    to = BytesOf(line, *text, "--to");
    if (to.empty()) throw UsageError("--to can't be empty");
    if (to < from) throw UsageError("--to lies before --from; the bounds are reversed");
  }
  range.from = std::max(range.from, from);
  if (!to.empty() && (range.to.empty() || to < range.to)) range.to = to;
  return range;
}

void AppendShown(bool hex, std::string_view bytes, std::string* out) {
  if (hex) {
    *out += Inspect::Hex(bytes);
    return;
  }
  const bool plain = std::all_of(bytes.begin(), bytes.end(), [](char letter) {
    return letter >= 0x20 && letter < 0x7F && letter != '\\';
  });
  if (plain) {
    out->append(bytes);
  } else {
    *out += Inspect::Printable(bytes);
  }
}

std::string Shown(const Invocation& line, std::string_view bytes) {
  std::string text;
  AppendShown(IsHex(line), bytes, &text);
  return text;
}

size_t TextWidth(std::string_view text) {
  return static_cast<size_t>(std::count_if(
      text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

}  // namespace Kestrun::Tools
