#include "tools/json_bytes.h"

#include "inspect/escape.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

int DigitOf(char letter) {
  if (letter >= '0' && letter <= '9') return letter - '0';
  if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
  if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
  return -1;
}

}  // namespace

Json JsonOfBytes(std::string_view bytes) {
  if (Inspect::IsUtf8(bytes)) return std::string(bytes);
  Json value = Json::object();
  value["hex"] = Inspect::Hex(bytes);
  return value;
}

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

void WriteJsonLine(const Json& value) {
  WriteLine(value.dump());
}

}  // namespace Kestrun::Tools
