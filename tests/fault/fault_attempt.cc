#include "tests/fault/fault_attempt.h"

#include <unistd.h>

#include <cstdio>
#include <set>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/merge_step.h"
#include "tests/support/process_maps.h"
#include "tests/support/scripted_store.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr uint32_t kWalSize = 2048;
constexpr uint32_t kLongWalSize = 4096;
constexpr int kNumbersOfRecovery = 300;
constexpr int kNumbersAfterwards = 500;

void Read(Script* script) {
  for (const int key : {1, 3, 5, kPlainKeys, kFirstRecordKey, kFirstRecordKey + 1}) {
    script->push_back({Kind::Get, key});
    script->push_back({Kind::Contains, key});
  }
  script->push_back({Kind::Scan});
}

void EndAfterReopening(Script* script) {
  script->push_back({Kind::Flush});
  InsertKeys(script, 3, 5, 40);
  Read(script);
  script->push_back({Kind::Close});
  script->push_back({Kind::Open, 0, 0, kWalSize});
  InsertKeys(script, 11, 12, 33);
}

Script OlderWorkload() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  InsertKeys(&script, 0, 8, 40);
  script.push_back({Kind::Append, kFirstRecordKey, 0, 30});
  InsertKeys(&script, kPlainKeys, kPlainKeys, 60);
  script.push_back({Kind::Insert, 3, 0, 900});
  script.push_back({Kind::Insert, 4, 0, 500});  // flushes
  script.push_back({Kind::Delete, 0});
  Read(&script);
  script.push_back({Kind::CreateType, 0, 1});
  script.push_back({Kind::Append, kFirstRecordKey + 1, 1, 24});
  script.push_back({Kind::Flush});
  script.push_back({Kind::DeleteRange, 5, 8});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 5, 6, 30);
  script.push_back({Kind::Flush});
  InsertKeys(&script, 1, 1, 35);
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  Read(&script);
  script.push_back({Kind::Compact});
  InsertKeys(&script, 9, 10, 28);
  script.push_back({Kind::Append, kFirstRecordKey + 2, 2, 18});
  Read(&script);
  script.push_back({Kind::Flush});
  script.push_back({Kind::Delete, 3});
  script.push_back({Kind::Clear});
  InsertKeys(&script, 2, 3, 40);
  script.push_back({Kind::Append, kFirstRecordKey + 3, 1, 20});
  EndAfterReopening(&script);
  return script;
}

Script SafeWorkload() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  InsertKeys(&script, 0, 6, 40);
  script.push_back({Kind::Batch, 3, 7, 30});
  script.push_back({Kind::Transact, 7, 11, 25});
  script.push_back({Kind::Append, kFirstRecordKey, 0, 30});
  InsertKeys(&script, kPlainKeys, kPlainKeys, 60);
  script.push_back({Kind::Sync});
  Read(&script);
  script.push_back({Kind::Batch, 0, 10, 110});    // flushes
  script.push_back({Kind::Transact, 1, 7, 150});  // flushes
  Read(&script);
  script.push_back({Kind::Checkpoint, 0, 1});
  script.push_back({Kind::DeleteRange, 5, 8});
  script.push_back({Kind::Flush});
  script.push_back({Kind::Insert, 3, 0, 900});
  script.push_back({Kind::Insert, 4, 0, 1200});  // flushes
  script.push_back({Kind::Delete, 0});
  script.push_back({Kind::Merge});
  Read(&script);
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kLongWalSize});  // the log is extended
  Read(&script);
  script.push_back({Kind::Batch, 8, 12, 500});
  script.push_back({Kind::Checkpoint, 0, 2});
  script.push_back({Kind::Compact});
  InsertKeys(&script, 9, 10, 28);
  Read(&script);
  script.push_back({Kind::Flush});
  script.push_back({Kind::Delete, 3});
  script.push_back({Kind::Clear});
  script.push_back({Kind::Transact, 2, 6, 40});
  EndAfterReopening(&script);
  return script;
}

Script MergeWorkload() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  for (int block = 0; block < 4; ++block) {
    InsertKeys(&script, block, block + 2, 40);
    script.push_back({Kind::Flush});
  }
  script.push_back({Kind::Insert, 1, 0, 50});
  script.push_back({Kind::Merge});
  script.push_back({Kind::Checkpoint, 0, 1});
  Read(&script);
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  Read(&script);
  return script;
}

Script FaultWorkload(Face face) {
  return face == Face::Safe ? SafeWorkload() : OlderWorkload();
}

Script RecoveryScript(Face face) {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  Read(&script);
  if (face == Face::Safe) {
    script.push_back({Kind::Batch, 8, 12, 30});
    script.push_back({Kind::Checkpoint, 0, 9});
    script.push_back({Kind::Transact, 2, 5, 30});
  }
  InsertKeys(&script, 6, 7, 45);
  script.push_back({Kind::Flush});
  script.push_back({Kind::Append, kFirstRecordKey, 1, 18});
  script.push_back({Kind::Delete, 6});
  script.push_back({Kind::Flush});
  script.push_back({Kind::Compact});
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  Read(&script);
  return script;
}

Script AfterwardsScript() {
  Script script;
  for (int round = 0; round < 4; ++round) {
    script.push_back({Kind::Insert, 12 + round, 0, 50});
    script.push_back({Kind::Append, kFirstRecordKey + round, 3 + round % 2, 20});
    script.push_back({Kind::Flush});
  }
  script.push_back({Kind::Compact});
  script.push_back({Kind::Insert, 2, 0, 50});
  return script;
}

class Attempt {
 public:
  Attempt(const std::string& directory, Face face, const FaultPlan& plan, bool mustSucceed,
          FaultReport* report)
      : directory_(directory),
        face_(face),
        plan_(plan),
        descriptors_(CountDescriptors()),
        store_(directory, face),
        model_(face),
        mustSucceed_(mustSucceed),
        report_(report) {
    store_.SetMerge(&MergeOnce);
  }

  // What a process that did not get further with its steps has left is what there is now.
  void Inherit(const Script& script) {
    for (int i = 0; i < report_->progress.started; ++i) {
      const bool done = i < report_->progress.done;
      model_.Apply(i, script[static_cast<size_t>(i)],
                   done ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown);
    }
  }

  // Only steps of these kinds meet failures.
  void SpareAllBut(std::set<Kind> kinds) { kinds_ = std::move(kinds); }

  bool Run(const Script& script, int number) {
    for (const Step& step : script) {
      if (!Take(number++, step)) return false;
    }
    return true;
  }

  // The failures are over.
  bool RunAfterwards() {
    for (size_t i = 0; i < kFaults; ++i) report_->calls[i] = FaultCalls(static_cast<Fault>(i));
    SetFaultPlan({});
    if (!store_.IsOpen() && !Take(kNumbersAfterwards - 1, {Kind::Open, 0, 0, kWalSize})) return false;
    if (!Verify("afterwards")) return false;
    int number = kNumbersAfterwards;
    for (const Step& step : AfterwardsScript()) {
      if (!Take(number++, step)) return false;
    }
    if (!Verify("at the end")) return false;
    if (face_ == Face::Safe && !ClosesEverything()) return false;
    for (int key = 0; key < kScriptKeys; ++key) {
      for (int value = kAbsent; value < number; ++value) {
        if (model_.Allows(key, value)) report_->progress.settled[key] = value;
      }
    }
    return true;
  }

 private:
  bool Fail(const std::string& message) {
    std::snprintf(report_->message, sizeof(report_->message), "%s", message.c_str());
    return false;
  }

  bool Verify(const std::string& when) {
    const std::string wrong = store_.Verify(&model_);
    return wrong.empty() || Fail(when + " " + wrong);
  }

  bool ClosesEverything() {
    store_.Run(0, {Kind::Close});
    const size_t left = CountDescriptors();
    if (left != descriptors_) {
      return Fail(std::to_string(descriptors_) + " descriptors before, " + std::to_string(left) + " after");
    }
    const std::vector<std::string> mapped = MappingsOf(directory_ + "/wal_v5");
    return mapped.empty() || Fail("the log stays mapped: " + mapped.front());
  }

  // A checkpoint that was acknowledged is what the store is; one that was refused is not there, unless it
  // could not be removed.
  bool CompareCopy(int number, const Step& step, const ScriptedStore::Result& result) {
    const std::string copy = ScriptedStore::CopyPath(directory_, step.end);
    const bool isThere = access(copy.c_str(), F_OK) == 0;
    const std::string who = Describe(number, step) + " gives " + std::to_string(result.status);
    const bool failsOnce = plan_.first == plan_.last;
    if (failsOnce && access((copy + ".partial").c_str(), F_OK) == 0) return Fail(who + " and leaves a part");
    if (!isThere) return result.status != 0 || Fail(who + " and there is nothing");
    if (result.status != 0 && failsOnce) return Fail(who + " and leaves something");
    std::vector<int> found;
    uint32_t status = 0;
    const std::string wrong = ReadThroughSnapshot(copy, &status, &found);
    if (status != 0 || !wrong.empty()) {
      return Fail(who + ", the copy opens with " + std::to_string(status) + " " + wrong);
    }
    for (int key = 0; key < kScriptKeys; ++key) {
      if (!model_.Allows(key, found[static_cast<size_t>(key)]))
        return Fail(who + ", wrong about " + ScriptKey(key));
    }
    const std::string torn = model_.FindTornBatch(found);
    return torn.empty() || Fail(who + ", " + torn);
  }

  bool Take(int number, const Step& step) {
    const long before = FaultHits();
    store_.SetCallHook(kinds_.empty() || kinds_.count(step.kind) != 0 ? &ArmFaults : nullptr);
    report_->progress.started = number + 1;
    const ScriptedStore::Result result = store_.Run(number, step);
    report_->progress.done = number + 1;
    const bool hit = FaultHits() != before;
    report_->hits += FaultHits() - before;
    if (!result.ran) return true;
    ++report_->steps;
    if (result.status != 0) {
      ++report_->refused;
      if (!hit || mustSucceed_ || !IsExpectedFailure(step.kind, result.status, face_)) {
        return Fail(Describe(number, step) + " gives " + std::to_string(result.status));
      }
    }
    // A range's deletion of the older face succeeds whatever becomes of the keys.
    const bool isVague = face_ == Face::Older && hit && !mustSucceed_ && step.kind == Kind::DeleteRange;
    const bool certain = result.status == 0 && !isVague;
    model_.Apply(number, step, certain ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown);
    return Compare(number, step, result, hit);
  }

  // What was read must be possible, however little the system does; what can't be found out counts as there.
  bool Compare(int number, const Step& step, const ScriptedStore::Result& result, bool hit) {
    if (step.kind == Kind::Get && result.status == 0) {
      if (!model_.Allows(step.key, result.found)) {
        return Fail(Describe(number, step) + " finds " + std::to_string(result.found) + " where " +
                    model_.Expected(step.key) + " was expected");
      }
      model_.Settle(step.key, result.found);
    }
    if (step.kind == Kind::Checkpoint) return CompareCopy(number, step, result);
    if (step.kind == Kind::Scan && result.status == 0 && face_ == Face::Safe) {
      for (int key = 0; key < kScriptKeys; ++key) {
        if (!model_.Allows(key, result.scanned[static_cast<size_t>(key)])) {
          return Fail("a walk of step " + std::to_string(number) + " is wrong about " + ScriptKey(key));
        }
      }
      const std::string torn = model_.FindTornBatch(result.scanned);
      if (!torn.empty()) return Fail("a walk of step " + std::to_string(number) + ": " + torn);
    }
    if (step.kind == Kind::Contains && face_ == Face::Safe && result.status != 0) return true;
    if (step.kind == Kind::Contains) {
      const bool possible = result.contains ? (hit && face_ == Face::Older) || !model_.MustBeAbsent(step.key)
                                            : !model_.MustBePresent(step.key);
      if (!possible) return Fail(Describe(number, step) + " is wrong");
    }
    return true;
  }

  const std::string directory_;
  const Face face_;
  const FaultPlan plan_;
  const size_t descriptors_;  // open before
  std::set<Kind> kinds_;      // empty: all of them
  ScriptedStore store_;
  StoreModel model_;
  const bool mustSucceed_;
  FaultReport* const report_;
};

}  // namespace

int RunFaultAttempt(const std::string& directory, Face face, Workload workload, const FaultPlan& plan,
                    bool mustSucceed, FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  Attempt attempt(directory, face, plan, mustSucceed, report);
  const bool isWhole = workload == Workload::Everything;
  if (!isWhole) attempt.SpareAllBut({Kind::Merge, Kind::Checkpoint});
  const Script script = isWhole ? FaultWorkload(face) : MergeWorkload();
  return attempt.Run(script, 0) && attempt.RunAfterwards() ? 0 : 1;
}

int RunUntilEnd(const std::string& directory, Face face, const FaultPlan& plan, FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  return Attempt(directory, face, plan, true, report).Run(FaultWorkload(face), 0) ? 0 : 1;
}

int RunFaultyRecovery(const std::string& directory, Face face, const FaultPlan& plan, FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  Attempt attempt(directory, face, plan, false, report);
  attempt.Inherit(FaultWorkload(face));
  return attempt.Run(RecoveryScript(face), kNumbersOfRecovery) && attempt.RunAfterwards() ? 0 : 1;
}

}  // namespace Kestrun::Testing
