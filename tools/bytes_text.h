// tools/bytes_text.h: keys, bounds and values on the command line and on the screen.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kestrun/range.h"
#include "tools/command_spec.h"

namespace Kestrun::Tools {

inline constexpr size_t kMaxKey = 65535;
// The largest value that an entry can tell.
inline constexpr uint64_t kMaxValue = 4294967295;

// The bytes of hexadecimal digits, of either case; empty when the text is anything else.
std::optional<std::string> BytesOfHex(std::string_view hex);

// What --hex says about this call.
bool IsHex(const Invocation& line);
bool IsJson(const Invocation& line);

// The bytes of an argument, which --hex makes hexadecimal digits; `what` names it. Throw UsageError.
std::string BytesOf(const Invocation& line, const std::string& text, const std::string& what);
// The same for a key: 1 to 65,535 bytes, the first one not 0xFF.
std::string KeyOf(const Invocation& line, const std::string& text, const std::string& what);
// Why the bytes are no key; empty when they are one.
std::string WhyNoKey(std::string_view bytes);

// --from, --to and --prefix together. Bounds that are reversed are wrong usage.
Range RangeOf(const Invocation& line);

// Bytes on one line of the screen: escaped, or with --hex as digits.
std::string Shown(const Invocation& line, std::string_view bytes);
// The same, appended.
void AppendShown(bool hex, std::string_view bytes, std::string* out);

// Columns that the text takes on a terminal, counting one for each character of UTF-8.
size_t TextWidth(std::string_view text);

}  // namespace Kestrun::Tools
