// watch.
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/escape.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

using Clock = std::chrono::steady_clock;

// What one look at the files shows. It reads headers and the manifest, and of the log what is new.
struct Look {
  uint64_t logSize = 0;
  uint64_t logUsed = 0;
  uint32_t generation = 0;
  uint64_t blocks = 0;
  uint64_t blockBytes = 0;
};

class Watcher {
 public:
  explicit Watcher(const Invocation& line) : line_(line) {}

  int Run() {
    std::chrono::milliseconds interval(1000);
    if (const std::string* text = line_.Find("--interval")) {
      const auto span = ParseSpan(*text);
      if (!span)
        throw UsageError("--interval takes a time such as 500ms or 2s, not \"" + Inspect::Printable(*text) +
                         "\"");
      interval = *span;
    }
    const uint64_t count = NumberOf(line_, "--count", UINT64_MAX);
    RequireStoreFiles(line_.Store());
    const InterruptGuard guard;
    TakeSound();
    CountNew(kWalFirstRecord);
    writes_ = 0;
    before_ = now_;
    if (!IsJson(line_) && !StandardOutputIsTerminal()) {
      WriteLine("TIME                  LOG   WRITES/S  FLUSHES  COMPACTIONS  BLOCKS  BYTES");
    }
    const auto start = Clock::now();
    for (uint64_t i = 1; i <= count && !WasInterrupted(); ++i) {
      WaitUntil(start + interval * i);
      if (WasInterrupted()) break;
      Step(std::chrono::duration<double>(interval).count());
      FlushData();
    }
    if (IsJson(line_) || !StandardOutputIsTerminal()) return WasInterrupted() ? kExitInterrupted : kExitDone;
    WriteData("\n");
    return WasInterrupted() ? kExitInterrupted : kExitDone;
  }

 private:
  // Until the time, or a signal.
  static void WaitUntil(Clock::time_point when) {
    const auto since = when.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds);
    const struct timespec time = {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR && !WasInterrupted()) {
    }
  }

  // Somebody may be writing a header at this very moment; one that stays unreadable is damaged.
  void TakeSound() {
    constexpr int kTries = 10;
    constexpr auto kPause = std::chrono::milliseconds(20);
    uint32_t status = Take(&now_);
    for (int i = 1; i < kTries && status != kStatusOk && !WasInterrupted(); ++i) {
      WaitUntil(Clock::now() + kPause);
      status = Take(&now_);
    }
    if (status != kStatusOk) throw StoreFailure(status, ShownPath(line_.Store()));
  }

  // The status of what can't be read.
  uint32_t Take(Look* look) {
    std::string why;
    const auto log = Inspect::ReadOnlyFile::Open(Inspect::LogPath(line_.Store()), &why);
    const auto manifest = Inspect::ReadOnlyFile::Open(Inspect::ManifestPath(line_.Store()), &why);
    if (!log || !manifest) throw StoreFailure(kStatusStoreMissing, ShownPath(line_.Store()) + ": " + why);
    Inspect::FileSource logSource(*log);
    Inspect::FileSource manifestSource(*manifest);
    const WalHeaderView logHeader = ReadWalHeader(logSource);
    const ManifestHeaderView header = ReadManifestHeader(manifestSource);
    if (!logHeader.Usable()) return logHeader.checksumMatches ? kStatusBadMagic : kStatusWalChecksum;
    if (!header.Usable()) return header.checksumMatches ? kStatusBadMagic : kStatusManifestChecksum;
    look->logSize = log->Size();
    look->logUsed = logHeader.header.used;
    look->generation = header.header.generation;
    look->blocks = look->blockBytes = 0;
    ManifestReader reader(manifestSource, manifest->Size());
    while (reader.Next()) {
      ++look->blocks;
      const auto block =
          Inspect::ReadOnlyFile::Open(Inspect::BlockPath(line_.Store(), reader.Entry().name), &why);
      if (block) look->blockBytes += block->Size();
    }
    return IsWholeList(reader.End()) ? kStatusOk : kStatusManifestUnreadable;
  }

  // Counts the records from `start` on as writes.
  void CountNew(uint64_t start) {
    std::string why;
    const auto log = Inspect::ReadOnlyFile::Open(Inspect::LogPath(line_.Store()), &why);
    if (!log) return;
    Inspect::FileSource source(*log);
    WalReader reader(source, now_.logUsed, log->Size(), start);
    while (reader.Next()) ++writes_;
    counted_ = reader.Offset();
  }

  void Step(double seconds) {
    TakeSound();
    const uint32_t recorded = now_.generation - before_.generation;
    const bool wasReset = now_.logUsed < counted_ || (recorded != 0 && now_.blocks > before_.blocks);
    writes_ = 0;
    CountNew(wasReset ? kWalFirstRecord : counted_);
    // A block more is a flush; a new list without more blocks is a merge.
    const uint64_t flushes = now_.blocks > before_.blocks ? now_.blocks - before_.blocks : 0;
    const uint64_t merges = recorded > flushes ? recorded - flushes : 0;
    flushes_ += flushes;
    merges_ += merges;
    const auto perSecond = static_cast<uint64_t>(static_cast<double>(writes_) / seconds + 0.5);
    const auto time = static_cast<uint64_t>(std::time(nullptr));
    if (IsJson(line_)) {
      JsonWriter json;
      json.BeginObject().Name("time").Number(time).Name("logUsed").Number(now_.logUsed);
      json.Name("logSize").Number(now_.logSize).Name("writesPerSecond").Number(perSecond);
      json.Name("flushes").Number(flushes_).Name("compactions").Number(merges_);
      json.Name("blocks").Number(now_.blocks).Name("blockBytes").Number(now_.blockBytes);
      WriteJsonLine(json.EndObject());
    } else if (StandardOutputIsTerminal()) {
      Draw(perSecond);
    } else {
      const std::string fill = std::to_string(Fill()) + "%";
      std::string text =
          Inspect::UtcTime(time) + "  " + Right(fill, 4) + Right(std::to_string(perSecond), 11);
      text += Right(std::to_string(flushes_), 9) + Right(std::to_string(merges_), 13);
      WriteLine(text + Right(std::to_string(now_.blocks), 8) + "  " + SizeText(now_.blockBytes));
    }
    before_ = now_;
  }

  uint64_t Fill() const { return now_.logSize == 0 ? 0 : now_.logUsed * 100 / now_.logSize; }

  static std::string Right(const std::string& text, size_t width) {
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
  }

  // Draws over what was drawn before.
  void Draw(uint64_t perSecond) {
    constexpr size_t kWidth = 40;
    constexpr size_t kHistory = 40;
    constexpr const char* kBars[] = {" ",      "\u2581", "\u2582", "\u2583", "\u2584",
                                     "\u2585", "\u2586", "\u2587", "\u2588"};
    history_.push_back(perSecond);
    if (history_.size() > kHistory) history_.erase(history_.begin());
    const uint64_t most = std::max<uint64_t>(1, *std::max_element(history_.begin(), history_.end()));
    std::string chart;
    for (const uint64_t value : history_) chart += kBars[(value * 8 + most - 1) / most];
    const size_t filled = static_cast<size_t>(Fill() * kWidth / 100);
    if (drawn_) WriteData("\033[6A");
    drawn_ = true;
    const std::string end = "\033[K\n";
    WriteData(ShownPath(line_.Store()) + "  (Ctrl-C ends)" + end);
    WriteData("log          [" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] " +
              std::to_string(Fill()) + "% of " + SizeText(now_.logSize) + end);
    WriteData("writes/s     " + Right(Grouped(perSecond), 12) + "  " + chart + end);
    WriteData("flushes      " + Right(Grouped(flushes_), 12) + end);
    WriteData("compactions  " + Right(Grouped(merges_), 12) + end);
    WriteData("blocks       " + Right(Grouped(now_.blocks), 12) + "  " + SizeText(now_.blockBytes) + end);
  }

  const Invocation& line_;
  Look before_;
  Look now_;
  uint64_t counted_ = kWalFirstRecord;  // end of the records that were counted
  uint64_t writes_ = 0;
  uint64_t flushes_ = 0;
  uint64_t merges_ = 0;
  std::vector<uint64_t> history_;
  bool drawn_ = false;
};

}  // namespace

int RunWatch(const Invocation& line) {
  return Watcher(line).Run();
}

}  // namespace Kestrun::Tools
