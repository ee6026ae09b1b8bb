// tools/json_bytes.h: bytes of a store in JSON: text where they are UTF-8, otherwise {"hex": "..."}.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace Kestrun::Tools {

// Members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

Json JsonOfBytes(std::string_view bytes);

// The bytes of hexadecimal digits, of either case; empty when the text is anything else.
std::optional<std::string> BytesOfHex(std::string_view hex);

// A line of standard output.
void WriteJsonLine(const Json& value);

}  // namespace Kestrun::Tools
