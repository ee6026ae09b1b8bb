// tools/progress.h: a bar, or how long it has taken, on the last line of standard error, on a terminal only
// and for what takes more than half a second.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace Kestrun::Tools {

class Progress {
 public:
  // `total` in the unit of Update; 0 when it is not known. `unit` is what is counted.
  Progress(std::string what, uint64_t total, const char* unit = "rows");
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
  const char* unit_;
  bool shown_;
  uint64_t calls_ = 0;
  std::chrono::steady_clock::time_point next_;
};

// For one long call, which can't tell how far it is: says how long it has taken. Nothing may
// be printed while it lives.
class Waiting {
 public:
  explicit Waiting(std::string what);
  // Removes the line.
  ~Waiting();
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  void Run();

  std::string what_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool isOver_ = false;  // guarded by mutex_
  std::thread thread_;   // the only one that shows anything
};

}  // namespace Kestrun::Tools
