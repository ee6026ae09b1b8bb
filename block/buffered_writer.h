// block/buffered_writer.h: writes a file forward in large pieces.
//
// Ownership: shares the file. What Append takes reaches the file with Flush at the latest.
// Threads:   one thread at a time.
// Failure:   false when the system takes no more, which the diagnostic handler is told; what was written
//            stays. The constructor may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "format/byte_source.h"
#include "storage/os_file.h"

namespace Kestrun {

class BufferedWriter {
 public:
  explicit BufferedWriter(std::shared_ptr<OsFile> file);

  bool Append(const void* bytes, size_t size);
  // Appends `size` bytes at `offset` of a source. False also when it does not hold them or can't be read.
  bool AppendFrom(ByteSource& source, uint64_t offset, uint64_t size);
  // Goes on at `offset`; bytes that are passed over are not written.
  bool MoveTo(uint64_t offset);
  bool Flush();
  // Where the next byte goes.
  uint64_t Position() const { return start_ + held_; }

 private:
  bool Write(const void* bytes, size_t size);

  std::shared_ptr<OsFile> file_;
  std::vector<uint8_t> buffer_;
  uint64_t start_ = 0;  // of the buffer in the file
  size_t held_ = 0;
};

}  // namespace Kestrun
