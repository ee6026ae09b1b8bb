#include "tools/progress.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>

#include "tools/quantities.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kBarWidth = 30;
constexpr auto kPatience = std::chrono::milliseconds(500);
constexpr auto kInterval = std::chrono::milliseconds(100);

}  // namespace

Progress::Progress(std::string what, uint64_t total, const char* unit)
    : what_(std::move(what)),
      total_(total),
      unit_(unit),
      shown_(ShowsProgress()),
      next_(std::chrono::steady_clock::now() + kPatience) {}

Progress::~Progress() {
  if (shown_) ShowProgress("");
}

void Progress::Draw(uint64_t done, uint64_t rows) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + kInterval;

  std::string text = what_ + " ";
  if (total_ != 0) {
    const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
    const auto filled = static_cast<size_t>(share * static_cast<double>(kBarWidth));
    text += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] " +
            std::to_string(static_cast<int>(share * 100)) + "% ";
  }
  ShowProgress(text + Grouped(rows) + " " + unit_);
}

// Signals are for the thread that works: they break off its waiting.
Waiting::Waiting(std::string what) : what_(std::move(what)) {
  if (!ShowsProgress()) return;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] { Run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Waiting::~Waiting() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isOver_ = true;
  }
  ended_.notify_one();
  thread_.join();
  ShowProgress("");
}

void Waiting::Run() {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  const auto isOver = [this] { return isOver_; };
  for (auto next = start + kPatience; !ended_.wait_until(lock, next, isOver); next += kInterval) {
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    char seconds[32];
    std::snprintf(seconds, sizeof(seconds), "%.1f s", taken.count());
    ShowProgress(what_ + " " + seconds);
  }
}

}  // namespace Kestrun::Tools
