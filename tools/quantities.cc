#include "tools/quantities.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "inspect/escape.h"
#include "kestrun/data_entry.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kMaxLog = 4294967295;
constexpr uint64_t kMinLog = 129;
constexpr uint64_t kMaxPage = uint64_t{1} << 30;

std::string Quoted(const std::string& text) {
  return "\"" + Inspect::Printable(text) + "\"";
}

}  // namespace

std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t most) {
  const bool digitsOnly =
      !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (!digitsOnly || result.ec != std::errc() || number > most) return std::nullopt;
  return number;
}

std::optional<uint64_t> ParseSize(const std::string& text, uint64_t most) {
  if (text.empty()) return std::nullopt;
  unsigned shift = 0;
  switch (text.back()) {
    case 'K':
    case 'k':
      shift = 10;
      break;
    case 'M':
    case 'm':
      shift = 20;
      break;
    case 'G':
    case 'g':
      shift = 30;
      break;
    default:
      break;
  }
  const std::optional<uint64_t> number =
      ParseNumber(shift == 0 ? text : text.substr(0, text.size() - 1), most);
  if (!number || *number > most >> shift) return std::nullopt;
  return *number << shift;
}

std::optional<uint32_t> ParseTtl(const std::string& text) {
  if (text == "forever") return kTtlForever;
  if (text.empty()) return std::nullopt;
  uint64_t unit = 0;
  switch (text.back()) {
    case 's':
      unit = 1;
      break;
    case 'm':
      unit = 60;
      break;
    case 'h':
      unit = 3600;
      break;
    case 'd':
      unit = 86400;
      break;
    default:
      break;
  }
  const auto number = ParseNumber(unit == 0 ? text : text.substr(0, text.size() - 1), kTtlForever);
  unit = std::max<uint64_t>(unit, 1);
  if (!number || *number == 0 || *number > kTtlForever / unit) return std::nullopt;
  return static_cast<uint32_t>(*number * unit);
}

std::string TtlText(uint32_t ttl) {
  return ttl == kTtlForever ? std::string("forever") : std::to_string(ttl) + " s";
}

std::optional<std::chrono::milliseconds> ParseSpan(const std::string& text) {
  constexpr uint64_t kMax = 86400000;
  uint64_t unit = 1000;
  std::string digits = text;
  if (text.size() > 2 && text.compare(text.size() - 2, 2, "ms") == 0) {
    unit = 1;
    digits.resize(text.size() - 2);
  } else if (!text.empty() && (text.back() == 's' || text.back() == 'm' || text.back() == 'h')) {
    unit = text.back() == 's' ? 1000 : text.back() == 'm' ? 60000 : 3600000;
    digits.pop_back();
  }
  const auto number = ParseNumber(digits, kMax);
  if (!number || *number == 0 || *number > kMax / unit) return std::nullopt;
  return std::chrono::milliseconds(*number * unit);
}

uint32_t TtlOf(const Invocation& line) {
  const std::string* text = line.Find("--ttl");
  if (text == nullptr) return kTtlForever;
  const auto ttl = ParseTtl(*text);
  if (!ttl) {
    throw UsageError(
        "--ttl takes a time from 1 second to forever, such as 90, 90s, 15m, 1h, 7d or forever, not " +
        Quoted(*text));
  }
  return *ttl;
}

std::optional<uint32_t> LogSizeOf(const Invocation& line) {
  const std::string* text = line.Find("--log-size");
  if (text == nullptr) return std::nullopt;
  const auto size = ParseSize(*text, kMaxLog);
  if (!size || *size < kMinLog) {
    throw UsageError(
        "--log-size takes a number of bytes from 129 to 4294967295, such as 65536, 64K or 4M, not " +
        Quoted(*text));
  }
  return static_cast<uint32_t>(*size);
}

std::optional<uint64_t> PageSizeOf(const Invocation& line) {
  const std::string* text = line.Find("--page-size");
  if (text == nullptr) return std::nullopt;
  const auto size = ParseSize(*text, kMaxPage);
  if (!size || *size < 512 || (*size & (*size - 1)) != 0) {
    throw UsageError("--page-size takes a power of two from 512 to 1G, such as 4096 or 16K, not " +
                     Quoted(*text));
  }
  return *size;
}

uint64_t NumberOf(const Invocation& line, const char* option, uint64_t byDefault) {
  const std::string* text = line.Find(option);
  if (text == nullptr) return byDefault;
  const auto number = ParseNumber(*text, UINT64_MAX);
  if (!number) throw UsageError(std::string(option) + " takes a whole number, not " + Quoted(*text));
  return *number;
}

std::string Grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) {
    at -= 3;
    text.insert(at, ",");
  }
  return text;
}

std::string SizeText(uint64_t bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double size = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  for (; size >= 1023.95 && unit < 3; ++unit) size /= 1024;
  char text[32];
  std::snprintf(text, sizeof(text), size < 10 ? "%.1f %s" : "%.0f %s", size, kUnits[unit]);
  return text;
}

std::string Counted(uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string AmountText(uint64_t count, bool mayBeMore) {
  if (!mayBeMore) return std::to_string(count);
  return count == 0 ? "an unknown number" : "at least " + std::to_string(count);
}

}  // namespace Kestrun::Tools
