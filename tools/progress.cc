#include "tools/progress.h"

#include <algorithm>

#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kBarWidth = 30;
constexpr auto kInterval = std::chrono::milliseconds(100);

}  // namespace

Progress::Progress(std::string what, uint64_t total)
    : what_(std::move(what)), total_(total), shown_(StandardErrorIsTerminal()) {}

Progress::~Progress() {
  if (shown_) ShowProgress("");
}

void Progress::Update(uint64_t done, uint64_t rows) {
  if (!shown_) return;
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
  ShowProgress(text + std::to_string(rows) + " rows");
}

}  // namespace Kestrun::Tools
