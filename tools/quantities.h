// tools/quantities.h: numbers, sizes and times as people write and read them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/command_spec.h"

namespace Kestrun::Tools {

// A whole number in decimal digits; empty when the text is anything else or above `most`.
std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t most);
// A whole number of bytes with an optional K, M or G.
std::optional<uint64_t> ParseSize(const std::string& text, uint64_t most);
// A time to live: seconds, or a number with s, m, h or d, or "forever".
std::optional<uint32_t> ParseTtl(const std::string& text);
// A time to live for a person: "forever", "90 s".
std::string TtlText(uint32_t ttl);
// A span with ms, s, m or h; without a unit it counts seconds.
std::optional<std::chrono::milliseconds> ParseSpan(const std::string& text);

// What the options of a command line say. They throw UsageError when the text is none of theirs.
uint32_t TtlOf(const Invocation& line);                      // kTtlForever unless given
std::optional<uint32_t> LogSizeOf(const Invocation& line);   // empty unless given
std::optional<uint64_t> PageSizeOf(const Invocation& line);  // empty unless given
uint64_t NumberOf(const Invocation& line, const char* option, uint64_t byDefault);

// "1461", "12,345,678".
std::string Grouped(uint64_t number);
// "812 B", "4.0 MiB".
std::string SizeText(uint64_t bytes);
// "1 key", "2 keys".
std::string Counted(uint64_t count, const char* one, const char* many);
// "3", "at least 3", "an unknown number"; the others where there may be more.
std::string AmountText(uint64_t count, bool mayBeMore);

}  // namespace Kestrun::Tools
