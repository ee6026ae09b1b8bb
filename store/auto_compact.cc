#include "store/auto_compact.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "block/block_pages.h"
#include "kestrun/status.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

constexpr size_t kFanout = 4;

// A block is never made larger, although 4 GiB is where its offsets end.
constexpr uint64_t kMaxMergedBytes = uint64_t{3} << 30;

// Where newer versions, tombstones and expired entries make up this part of
// all entries, everything is merged.
constexpr double kMaxHiddenPart = 0.3;
// So many keys of each block are looked up in the older ones to find that out.
constexpr uint32_t kSamples = 32;
constexpr size_t kMaxRemembered = 4096;

// So many records of the log may wait for their places in its order before the thread is asked to find them.
constexpr size_t kMaxUnordered = 4096;

size_t TierOf(uint64_t size, uint64_t unit) {
  size_t tier = 0;
  for (uint64_t limit = unit * 2; size > limit && tier < 32; limit *= kFanout) ++tier;
  return tier;
}

// Blocks all signals while a thread is being started, which inherits that.
class SignalBlock {
 public:
  SignalBlock() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

MergeChoice ChooseMerge(const std::vector<uint64_t>& sizes, uint64_t unit) {
  MergeChoice best;
  size_t bestTier = SIZE_MAX;
  size_t topTier = 0;
  for (size_t begin = 0; begin < sizes.size();) {
    const size_t tier = TierOf(sizes[begin], unit);
    size_t end = begin;
    uint64_t bytes = 0;
    while (end < sizes.size() && TierOf(sizes[end], unit) == tier && bytes + sizes[end] <= kMaxMergedBytes) {
      bytes += sizes[end++];
    }
    if (end - begin >= kFanout && tier < bestTier) {
      best = {begin, end - begin};
      bestTier = tier;
    }
    topTier = std::max(topTier, tier);
    begin = std::max(end, begin + 1);
  }
  if (best.count != 0) return best;

  // Tiers that alternate leave no run: the four neighbours that cost least, when there are too many.
  if (sizes.size() <= (topTier + 2) * kFanout) return best;
  uint64_t least = kMaxMergedBytes + 1;
  for (size_t first = 0; first + kFanout <= sizes.size(); ++first) {
    uint64_t bytes = 0;
    for (size_t i = first; i < first + kFanout; ++i) bytes += std::min(sizes[i], kMaxMergedBytes + 1);
    if (bytes >= least) continue;
    least = bytes;
    best = {first, kFanout};
  }
  return best;
}

AutoCompact::AutoCompact(Store::Impl& store)
    : store_(store), processId_(getpid()), signal_(std::make_unique<Signal>()) {
  const SignalBlock block;
  thread_ = std::thread([this] { Run(); });
}

AutoCompact::~AutoCompact() {
  if (getpid() != processId_) {
    // The thread does not exist in a forked child, where what it waited for can't be destroyed.
    thread_.detach();
    static_cast<void>(signal_.release());
    return;
  }
  stop_.store(true, std::memory_order_relaxed);
  Wake();
  thread_.join();
}

void AutoCompact::Wake() {
  {
    const std::lock_guard<std::mutex> lock(signal_->mutex);
    signal_->isAwake = true;
  }
  signal_->wake.notify_one();
}

void AutoCompact::Order(std::shared_ptr<const LogFilling> filling) {
  if (isOrdering_.exchange(true) || getpid() != processId_) return;
  {
    const std::lock_guard<std::mutex> lock(signal_->mutex);
    signal_->toOrder = std::move(filling);
  }
  signal_->wake.notify_one();
}

void AutoCompact::Run() {
  while (!stop_.load(std::memory_order_relaxed)) {
    bool merges = false;
    std::shared_ptr<const LogFilling> toOrder;
    {
      std::unique_lock<std::mutex> lock(signal_->mutex);
      signal_->wake.wait(lock, [this] { return signal_->isAwake || signal_->toOrder != nullptr; });
      merges = std::exchange(signal_->isAwake, false);
      toOrder = std::move(signal_->toOrder);
    }
    if (toOrder != nullptr) {
      toOrder->index.Order();
      toOrder.reset();
      isOrdering_.store(false);
    }
    while (merges && !stop_.load(std::memory_order_relaxed) && MergeOnce()) {
    }
  }
}

// Whether something was merged, and there may be more. A failure waits for the next flush.
bool AutoCompact::MergeOnce() {
  bool done = false;
  const uint32_t status = CatchBadAlloc([&] { return store_.MergeNext(&stop_, &done); });
  return status == kStatusOk && done;
}

uint32_t Store::Impl::MergeNext(const std::atomic<bool>* stop, bool* done) {
  *done = false;
  MergeTurn turn(*this);
  if (!turn.IsOurs()) return kStatusOk;
  ManifestListPointer list;
  if (const uint32_t status = manifest_->LoadUnlocked(&list); status != kStatusOk) return status;
  const BlockEntries& entries = list->entries;
  if (entries.size() < 2) return kStatusOk;

  std::vector<uint64_t> sizes;
  for (const std::shared_ptr<BlockEntry>& entry : entries) {
    struct stat info = {};
    if (stat(core_.BlockPath(entry->name).c_str(), &info) != 0)
      return kStatusOpenFailed;  // merged by another process
    sizes.push_back(static_cast<uint64_t>(info.st_size));
  }
  MergeChoice choice = ChooseMerge(sizes, options_.logSize);
  if (choice.count == 0) {
    double bytes = 0;
    double hidden = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
      bytes += static_cast<double>(sizes[i]);
      hidden += static_cast<double>(sizes[i]) * EstimateHidden(entries, i);
    }
    if (hidden > bytes * kMaxHiddenPart && bytes < static_cast<double>(kMaxMergedBytes))
      choice = {0, entries.size()};
  }
  if (choice.count == 0) return kStatusOk;
  const auto begin = entries.begin() + static_cast<ptrdiff_t>(choice.first);
  const BlockEntries run(begin, begin + static_cast<ptrdiff_t>(choice.count));
  return MergeRun(run, choice.first == 0, stop, done);
}

// By keys of the block that the filters of the older ones know. A block that is not in memory is not loaded
// for it; what was found out about a block is remembered, because it was in memory once, when it was written.
double Store::Impl::EstimateHidden(const BlockEntries& entries, size_t newer) {
  const std::shared_ptr<BlockEntry>& entry = entries[newer];
  const auto known = hiddenParts_.find(entry->name);
  if (known != hiddenParts_.end()) return known->second;
  const std::shared_ptr<Block> block = cache_.Find(entry->name, core_.BlockPath(entry->name), entry);
  if (block == nullptr) return 0;
  const uint32_t samples = std::min(block->Count(), kSamples);
  uint32_t found = 0;
  BlockPages pages(*block);
  for (uint32_t i = 0; i < samples; ++i) {
    const auto place = static_cast<uint32_t>(uint64_t{block->Count()} * i / samples);
    if (pages.Load(place) != kStatusOk) return 0;
    const DataEntry described = pages.EntryAt(place);
    const BlockFilter::Probe probe(pages.KeyAt(place));
    const bool hides =
        std::any_of(entries.begin(), entries.begin() + static_cast<ptrdiff_t>(newer),
                    [&](const std::shared_ptr<BlockEntry>& older) {
                      return cache_.FilterKnows(older->name, core_.BlockPath(older->name), probe, older);
                    });
    if (hides || described.deleted) ++found;
  }
  if (hiddenParts_.size() >= kMaxRemembered) hiddenParts_.clear();
  return hiddenParts_[entry->name] = samples == 0 ? 0 : static_cast<double>(found) / samples;
}

void Store::Impl::OrderAhead() {
  if (autoCompact_ == nullptr || wal_->Index().UnorderedCount() < kMaxUnordered) return;
  autoCompact_->Order(wal_->Filling());
}

// A store that only reads has no thread, and one of a forked child has none: the parent's does not exist
// there. Where there is no room for one, the next flush tries again.
void Store::Impl::WakeAutoCompact() {
  if (!options_.autoCompact || getpid() != processId_) return;
  try {
    if (autoCompact_ == nullptr) autoCompact_ = std::make_unique<AutoCompact>(*this);
    autoCompact_->Wake();
  } catch (const std::exception&) {
    core_.diagnostics.Print("Failed to start the thread that merges blocks\n");
  }
}

}  // namespace Kestrun
