// storage/log_copy.h: a copy of the log's used bytes in memory, for readers that hold no lock.
//
// The log's own bytes are overwritten once it was reset, by any process and at any time that nobody holds its
// lock. The copy only grows: what it has shown once stays as it is.
//
// Ownership: shared; it lives as long as a snapshot reads from it.
// Threads:   one thread at a time may call Extend, with the log's lock held. Bytes before a size that Extend
//            has reached may be read beside it, by threads that were handed that size afterwards.
#pragma once

#include <cstdint>
#include <memory>

namespace Kestrun {

class LogCopy {
 public:
  // An empty copy with room for `capacity` bytes, of which only those that are copied take memory. Null when
  // the system has no memory. May throw std::bad_alloc.
  static std::shared_ptr<LogCopy> Create(uint32_t capacity);

  ~LogCopy();
  LogCopy(const LogCopy&) = delete;
  LogCopy& operator=(const LogCopy&) = delete;

  // Copies what is missing of the first `end` bytes of `log`. `end` is at most Capacity().
  void Extend(const uint8_t* log, uint32_t end);

  // Fills an empty copy whole: `read` stores Capacity() bytes where it is told to
  // and returns whether it could.
  template <typename Read>
  bool Fill(Read read) {
    if (!read(bytes_)) return false;
    size_ = capacity_;
    return true;
  }

  const uint8_t* Bytes() const { return bytes_; }
  uint32_t Capacity() const { return capacity_; }

 private:
  LogCopy(uint8_t* bytes, uint32_t capacity) : bytes_(bytes), capacity_(capacity) {}

  uint8_t* bytes_;
  uint32_t capacity_;
  uint32_t size_ = 0;
};

}  // namespace Kestrun
