// inspect/escape.h: bytes of a store as text that is safe to show on a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrun::Inspect {

// Whether the bytes are valid UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(std::string_view bytes);

// The bytes on one line: printable text as it is, a backslash as "\\", line ends and tabs as "\n", "\r" and
// "\t", every other control character and every byte that is not UTF-8 as "\xNN". Different bytes give
// different text.
std::string Printable(std::string_view bytes);

// Two lower-case hexadecimal digits for each byte.
std::string Hex(std::string_view bytes);

// A time in UTC as "2012-01-01T00:00:00Z", the plain number of seconds where there is no such date.
std::string UtcTime(uint64_t seconds);

}  // namespace Kestrun::Inspect
