#include "tools/progress.h"

#include <algorithm>

#include "tools/quantities.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kBarWidth = 30;
constexpr auto kPatience = std::chrono::milliseconds(500);
constexpr auto kInterval = std::chrono::milliseconds(100);

}  // namespace

Progress::Progress(std::string what, uint64_t total)
    : what_(std::move(what)),
      total_(total),
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
  ShowProgress(text + Grouped(rows) + " rows");
}

}  // namespace Kestrun::Tools
