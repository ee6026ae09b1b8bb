// tools/progress.h: a bar on the last line of standard error, on a terminal only and for what takes more than half a
// second.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Kestrun::Tools {

class Progress {
 public:
  // `total` in the unit of Update; 0 when it is not known.
  Progress(std::string what, uint64_t total);
  // Removes the bar.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Draws at most ten times a second. Cheap enough for every row.
  void Update(uint64_t done, uint64_t rows) {
    if (shown_ && (++calls_ & 255) == 0) Draw(done, rows);
  }

 private:
  void Draw(uint64_t done, uint64_t rows);

  std::string what_;
  uint64_t total_;
  bool shown_;
  uint64_t calls_ = 0;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace Kestrun::Tools
