// base/diagnostics.h: where the store's messages go.
//
// The code below the two faces has things to say, but it does not know to whom: it is given a Diagnostics.
// The older face prints, the other one only tells the handler of kestrun/diagnostics.h.
//
// Ownership: both objects live until the process ends.
// Threads:   safe.
// Failure:   none; a message that can't be told is dropped. Nothing allocates.
#pragma once

#include <string_view>

namespace Kestrun {

class Diagnostics {
 public:
  // The handler where one is set, else standard output.
  static const Diagnostics& Printing();
  // The handler where one is set, else nobody.
  static const Diagnostics& HandlerOnly();

  // One piece of a message, as it stands: a line ends only where the piece has a line end.
  void Print(std::string_view piece) const;
  // The same, put together as printf does. A handler gets at most the first 4095 bytes.
  void Printf(const char* format, ...) const __attribute__((format(printf, 2, 3)));

 private:
  explicit constexpr Diagnostics(bool prints) : prints_(prints) {}

  bool prints_;
};

}  // namespace Kestrun
