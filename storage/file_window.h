// storage/file_window.h: reads a file forward in large pieces and shows any stretch of it in memory.
//
// Ownership: the bytes shown belong to the window until the next call. The file is asked for whenever the
//            window has to move, so its owner may close and open it in between.
// Threads:   one thread at a time.
// Failure:   see Result; View may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "storage/os_file.h"

namespace Kestrun {

class FileWindow {
 public:
  enum class Result {
    Ok,
    Short,   // the file ends before the stretch does
    Failed,  // the system could not read, or the file could not be had
  };

  // Gives the file to read from, or null when it can't be had.
  using Source = std::function<std::shared_ptr<OsFile>()>;

  FileWindow(Source source, size_t capacity);
  // A window on a file that stays open.
  FileWindow(std::shared_ptr<OsFile> file, size_t capacity);

  // Lets the window hold no more than `size` bytes, for a stretch of the file that is no longer.
  void LimitTo(uint64_t size);

  // Shows `length` bytes at `offset`. A stretch longer than the capacity makes the window grow.
  Result View(uint64_t offset, size_t length, const uint8_t** bytes);

 private:
  Source source_;
  size_t capacity_;
  std::vector<uint8_t> buffer_;  // holds the `held_` bytes of the file at `start_`
  uint64_t start_ = 0;
  size_t held_ = 0;
};

}  // namespace Kestrun
