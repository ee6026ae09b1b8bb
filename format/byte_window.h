// format/byte_window.h: reads a source that is mostly walked forward in small pieces with few calls of it.
//
// Threads: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/byte_source.h"

namespace Kestrun {

class ByteWindow {
 public:
  static constexpr size_t kDefaultSize = size_t{64} << 10;

  explicit ByteWindow(ByteSource& source, size_t size = kDefaultSize) : source_(source), windowSize_(size) {}

  // Copies exactly `length` bytes from `offset` on; false when there are fewer or they can't be read. May throw
  // std::bad_alloc.
  bool ReadExactly(uint64_t offset, void* buffer, size_t length);

 private:
  ByteSource& source_;
  size_t windowSize_;
  uint64_t start_ = 0;
  size_t held_ = 0;
  std::vector<uint8_t> bytes_;
};

}  // namespace Kestrun
