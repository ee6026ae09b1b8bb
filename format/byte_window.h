// format/byte_window.h: reads a source forward in large pieces and shows any stretch of it in memory.
//
// Ownership: borrows the source. The bytes shown belong to the window until the next call.
// Threads:   one thread at a time.
// Failure:   see Result; View may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/byte_source.h"

namespace Kestrun {

class ByteWindow {
 public:
  enum class Result {
    Ok,
    Short,   // the source ends before the stretch does
    Failed,  // the source can't be read
  };

  // A window of `capacity` bytes.
  ByteWindow(ByteSource& source, size_t capacity) : source_(source), capacity_(capacity) {}

  // Lets the window hold no more than `size` bytes, for a part of the source that is no longer.
  void LimitTo(uint64_t size);
  // Shows `length` bytes at `offset`. A stretch longer than the capacity makes the window grow.
  Result View(uint64_t offset, size_t length, const uint8_t** bytes);
  // Copies exactly `length` bytes from `offset` on; false when there are fewer or they can't be read.
  bool Copy(uint64_t offset, void* buffer, size_t length);
  // Gives up the window's memory until the next View.
  void Release();

 private:
  ByteSource& source_;
  size_t capacity_;
  std::vector<uint8_t> buffer_;  // holds the `held_` bytes of the source at `start_`
  uint64_t start_ = 0;
  size_t held_ = 0;
};

}  // namespace Kestrun
