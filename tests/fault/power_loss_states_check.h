// What a store must show after a loss of power, and whether it does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/fault/power_loss_states_disk.h"
#include "tests/support/scripted_store.h"

namespace Kestrun::Testing {

// Keys that no script uses: the check writes to them.
inline constexpr int kFirstCheckKey = kPlainKeys - 3;
inline constexpr int kCheckRecordKey = kScriptKeys - 1;
// Keys that begin so may be in a store without belonging to a script.
inline constexpr char kOtherKeys[] = "other/";

// What a loss of power at one moment may leave. Everything up to the last flush or clear that had returned is
// promised; of what was begun since, anything may be there.
struct Promise {
  std::vector<std::set<int>> allowed;  // for each key, the numbers of the steps whose values may be found
  int promised = 0;                    // so many steps are promised
  uint32_t walSize = 0;                // as the script would open the store next
  bool opened = false;                 // the first opening had returned
  Face face = Face::Older;             // through which it was written, and will be read
  // What Store may show: the state after each write since what is promised. Empty where more than that is
  // possible: while a flush or a clear is under way, or where it is not known what there was before.
  std::vector<std::vector<int>> prefixes;
};

// The steps of a script with the events that were recorded meanwhile.
class History {
 public:
  // The step's events are those from `begin` to `end`; `flushed` tells whether the manifest was forced to the
  // disk on the way, and so everything that was in the log before.
  void Add(const Step& step, size_t begin, size_t end, bool flushed);
  // What the store held before the first step, as an earlier loss of power may have left it; the steps are
  // numbered from `firstNumber` on.
  void StartFrom(const Promise& promise, int firstNumber) {
    start_ = promise;
    start_.promised = 0;
    firstNumber_ = firstNumber;
  }
  // For a loss of power after the first `events` events.
  Promise PromiseAt(size_t events) const;

 private:
  struct Done {
    Step step;
    size_t begin;
    size_t end;
    bool flushed;
  };
  std::vector<Done> steps_;
  Promise start_;
  int firstNumber_ = 0;
};

// What the store shows and the format can't tell from the truth. It takes a log of which some pages arrived
// and others did not.
enum class Finding {
  OlderValue,     // a record of an earlier filling of the log, over a newer value in a block
  OlderDeletion,  // a deletion marker of an earlier filling, over a newer value in a block
  OtherBytes,     // a record whose value did not arrive, over an older value
  PhantomKey,     // a record whose key did not arrive
  Hidden,         // written after the restart behind a damaged record, and gone with the next restart
};
inline constexpr size_t kFindings = 5;

// The result of one state, in memory that the checking processes share.
struct Verdict {
  int stage;  // which process has come how far: odd when begun, even when done; 6 at the end
  bool failed;
  char message[240];
  uint32_t findings[kFindings];
  bool damaged;  // the log ends in a record that is not whole
  int found[kScriptKeys];
};

// Three processes in a row that open the store of one state. Each returns with the verdict's next stage.
//   1  puts the files in place, opens, looks at every key, writes one
//   2  opens, looks for it, writes more, flushes, and writes once more
//   3  opens, looks for everything
// `whole` says that the log is one that once was, so that there is no excuse for any finding.
void CheckFirst(const DiskImage& image, const std::string& directory, const Promise& promise, bool whole,
                Verdict* verdict);
void CheckSecond(const std::string& directory, const Promise& promise, Verdict* verdict);
void CheckThird(const std::string& directory, const Promise& promise, Verdict* verdict);

inline constexpr char kStoreName[] = "store";

}  // namespace Kestrun::Testing
