#include "kestrun/range.h"

namespace Kestrun {

Range Range::All() {
  return {};
}

// The first key after all that begin with the prefix: the prefix without its trailing 0xFF bytes, which have
// nothing after them, and with the last byte that is left one higher.
Range Range::Prefix(std::string_view prefix) {
  std::string to(prefix);
  while (!to.empty() && static_cast<unsigned char>(to.back()) == 0xFF) to.pop_back();
  if (!to.empty()) to.back() = static_cast<char>(static_cast<unsigned char>(to.back()) + 1);
  return {std::string(prefix), std::move(to)};
}

}  // namespace Kestrun
