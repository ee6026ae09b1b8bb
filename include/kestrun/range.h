// kestrun/range.h: a stretch of keys.
//
// Ownership: a range owns copies of its bounds.
// Threads:   a range that nobody changes may be read from any number of threads.
// Failure:   nothing but std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

#include "kestrun/export.h"

namespace Kestrun {

// The keys from `from` up to and not including `to`, in unsigned byte order. A range whose `to` is not
// after its `from` is empty.
struct KESTRUN_EXPORT Range {
  std::string from;  // empty: from the beginning
  std::string to;    // empty: to the end

  // Every key.
  static Range All();
  // The keys that begin with `prefix`; every key when it is empty.
  static Range Prefix(std::string_view prefix);
};

}  // namespace Kestrun
