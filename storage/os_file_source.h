// storage/os_file_source.h: a file of the store as the readers of format/ take it.
#pragma once

#include "format/byte_source.h"
#include "storage/os_file.h"

namespace Kestrun {

// Threads: any number at once, as positioned reads of the file.
class OsFileSource final : public ByteSource {
 public:
  explicit OsFileSource(OsFile& file) : file_(file) {}

  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    return file_.PReadFully(buffer, length, static_cast<int64_t>(offset));
  }
  bool Size(uint64_t* size) override { return file_.Size(size) == 0; }

 private:
  OsFile& file_;
};

}  // namespace Kestrun
