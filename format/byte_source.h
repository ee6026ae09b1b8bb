// format/byte_source.h: bytes at an offset: what the readers of the file formats read from. A file, a mapping
// and memory look the same through it.
//
// Ownership: a reader borrows its source, which must outlive it.
// Threads:   as the implementation says; those of this header may be read from any number of threads.
// Units:     offsets and lengths are bytes.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kestrun {

class ByteSource {
 public:
  ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;
  virtual ~ByteSource() = default;

  // Copies up to `length` bytes from `offset` on to `buffer` and returns how many: fewer only where the
  // source ends, 0 after its end, -1 when the system can't read them.
  virtual ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) = 0;
  // The size of the source; false when it can't be found out.
  virtual bool Size(uint64_t* size) = 0;
};

// Whether exactly `length` bytes stand at `offset` and could be read.
inline bool ReadExactly(ByteSource& source, uint64_t offset, void* buffer, size_t length) {
  return source.ReadAt(offset, buffer, length) == static_cast<ssize_t>(length);
}

// Bytes in memory, which must outlive the source: a buffer or a mapping.
class MemorySource final : public ByteSource {
 public:
  MemorySource(const void* bytes, size_t size) : bytes_(static_cast<const uint8_t*>(bytes)), size_(size) {}

  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    if (offset >= size_) return 0;
    const size_t count = std::min(length, size_ - static_cast<size_t>(offset));
    if (count != 0) std::memcpy(buffer, bytes_ + offset, count);
    return static_cast<ssize_t>(count);
  }
  bool Size(uint64_t* size) override {
    *size = size_;
    return true;
  }

 private:
  const uint8_t* bytes_;
  size_t size_;
};

}  // namespace Kestrun
