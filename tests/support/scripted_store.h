// A scripted use of a store through its public interface, and a model of what the store may hold.
//
// A script is a list of steps, each with a number of its own. A value is made from the number of the step
// that wrote it, so that whatever is read back tells where it comes from. The model knows for every key which
// steps' values may be found under it: exactly one while every step is known to be done, more where a step
// was cut off or failed, until somebody has looked.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/series.h"
#include "kestrun/store.h"

namespace Kestrun::Testing {

// Keys are numbered: bytes under keys with a common primary, bytes under long keys without one, and records.
inline constexpr int kPlainKeys = 16;
inline constexpr int kLongKeys = 4;
inline constexpr int kRecordKeys = 6;
inline constexpr int kScriptKeys = kPlainKeys + kLongKeys + kRecordKeys;
inline constexpr int kFirstRecordKey = kPlainKeys + kLongKeys;

std::string ScriptKey(int key);

struct Step {
  enum class Kind {
    Open,         // `size` is that of the log
    Close,        //
    Insert,       // `size` bytes under `key`
    Delete,       // `key`
    DeleteRange,  // the keys from `key` up to `end`, which is left out; plain keys only
    Flush,
    Compact,
    Clear,
    CreateType,  // the record type with the number `end`
    Append,      // under `key`, a record of the type with the number `end` with a text of `size` bytes
    Get,         // `key`
    Contains,    // `key`
    Scan,
    // Through Store alone.
    Batch,       // `size` bytes under each plain key from `key` up to `end`, but the last one is deleted
    Transact,    // the same in a transaction that reads them first
    Sync,        //
    Checkpoint,  // to the directory that CopyPath(`end`) names
    Merge,       // one turn of the thread that merges blocks, on this thread
  };
  Kind kind;
  int key = 0;
  int end = 0;
  uint32_t size = 0;
};
using Script = std::vector<Step>;

// Adds an Insert of each of the keys from `first` to `last`; their sizes differ a little.
void InsertKeys(Script* script, int first, int last, uint32_t size);

const char* StepName(Step::Kind kind);
// "step 12, Insert user-03" for messages.
std::string Describe(int number, const Step& step);

inline constexpr int kAbsent = -1;
inline constexpr int kForeign = -2;  // something that no step has written

// Through what a script uses the store: an engine and a series that are open on it together, or Store. For
// Store a record is its text, and there are no types.
enum class Face { Older, Safe };

// What a step writes, in this order: keys, and for each of them the step's number or kAbsent.
// Not that of Clear.
std::vector<std::pair<int, int>> WritesOf(int number, const Step& step);
// Whether it writes all of that or nothing.
bool IsAtomic(Step::Kind kind, Face face);

class StoreModel {
 public:
  // An empty store.
  explicit StoreModel(Face face = Face::Older);

  enum class Outcome {
    Done,
    Unknown,  // not done, done, or, where it concerns several keys in several writes, done for some
  };
  void Apply(int number, const Step& step, Outcome outcome);

  bool Allows(int key, int found) const { return possible_[Index(key)].count(found) != 0; }
  // Whether it is certain that there is no such key, or that there is one.
  bool MustBeAbsent(int key) const { return possible_[Index(key)] == std::set<int>{kAbsent}; }
  bool MustBePresent(int key) const { return possible_[Index(key)].count(kAbsent) == 0; }
  // From now on only this is possible.
  void Settle(int key, int found) { possible_[Index(key)] = {found}; }
  // The values that are possible, "7 or none" for messages.
  std::string Expected(int key) const;
  // Empty, or a message that says which batch, whose outcome is not known, is there in part only. `found`
  // holds what was read under each key.
  std::string FindTornBatch(const std::vector<int>& found) const;

 private:
  // One whose outcome is not known, with those of its keys that nothing has written since.
  struct PendingBatch {
    struct Write {
      std::set<int> before;
      int after;
    };
    int number;
    std::map<int, Write> writes;
  };

  static size_t Index(int key) { return static_cast<size_t>(key); }

  Face face_;
  std::vector<std::set<int>> possible_;
  // What may show when the log is gone and the blocks are not, as in the middle of Clear: everything that the
  // key has had since the last flush that is known to be done.
  std::vector<std::set<int>> inBlocks_;
  std::vector<PendingBatch> pending_;
};

// Runs steps on the store in one directory.
class ScriptedStore {
 public:
  explicit ScriptedStore(std::string path, Face face = Face::Older) : path_(std::move(path)), face_(face) {}

  // Calls `hook(true)` right before every call of the library that a step makes, and `hook(false)` right
  // after it. Nothing of this class is called or allocated between the two.
  void SetCallHook(void (*hook)(bool inside)) { hook_ = hook; }

  bool IsOpen() const { return engine_ != nullptr || store_ != nullptr; }

  struct Result {
    bool ran = false;  // false where the store would have to be open and is not
    uint32_t status = 0;
    int found = kForeign;      // Get: the number of the step whose value was read, or kAbsent
    bool contains = false;     // Contains
    std::vector<int> scanned;  // Scan through Store: what a walk over all keys shows under each
  };
  Result Run(int number, const Step& step);

  // How Merge is done: Store has no operation for it.
  void SetMerge(uint32_t (*merge)(const std::string& path)) { merge_ = merge; }

  static std::string CopyPath(const std::string& path, int number) {
    return path + "-copy-" + std::to_string(number);
  }

  // Compares all that can be read with the model, and settles it. Empty, or a message that says what is
  // wrong.
  std::string Verify(StoreModel* model);

 private:
  template <typename Body>
  auto Call(Body body) {
    if (hook_ != nullptr) hook_(true);
    const auto result = body();
    if (hook_ != nullptr) hook_(false);
    return result;
  }
  uint32_t Open(uint32_t walSize);
  void Close();
  void RunOlder(int number, const Step& step, Result* result);
  void RunSafe(int number, const Step& step, Result* result);
  uint32_t Append(int number, const Step& step);
  uint32_t Find(int key, int* found);
  uint32_t Read(int key, int* found);
  uint32_t WriteAll(int number, const Step& step);
  uint32_t Scan(std::vector<int>* found);
  std::string VerifyOlder(StoreModel* model);
  std::string VerifySafe(StoreModel* model);

  std::string path_;
  Face face_;
  void (*hook_)(bool inside) = nullptr;
  uint32_t (*merge_)(const std::string& path) = nullptr;
  std::unique_ptr<LSDBImpl> engine_;
  std::unique_ptr<Series> series_;
  std::unique_ptr<Store> store_;
};

// What the files of a store that is not opened here show under each key, read through Snapshot::Open: by Get
// and by walks in both directions, which have to agree. Empty, or a message that says what is wrong;
// `*status` is that of Snapshot::Open, and there is nothing to say about a failure of it.
std::string ReadThroughSnapshot(const std::string& path, uint32_t* status, std::vector<int>* found);

// Statuses that the operation of a step may give when the system refuses something, but no file is damaged.
bool IsExpectedFailure(Step::Kind kind, uint32_t status, Face face = Face::Older);

}  // namespace Kestrun::Testing
