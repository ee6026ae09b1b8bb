#include "tests/fault/fault_attempt.h"

#include <cstdio>

#include "tests/support/child_process.h"
#include "tests/support/scripted_store.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr uint32_t kWalSize = 2048;
constexpr int kNumbersOfRecovery = 300;
constexpr int kNumbersAfterwards = 500;

void Read(Script* script) {
  for (const int key : {1, 3, 5, kPlainKeys, kFirstRecordKey, kFirstRecordKey + 1}) {
    script->push_back({Kind::Get, key});
    script->push_back({Kind::Contains, key});
  }
  script->push_back({Kind::Scan});
}

Script FaultWorkload() {
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
  script.push_back({Kind::Flush});
  InsertKeys(&script, 3, 5, 40);
  Read(&script);
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  InsertKeys(&script, 11, 12, 33);
  return script;
}

Script RecoveryScript() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  Read(&script);
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
  Attempt(const std::string& directory, bool mustSucceed, FaultReport* report)
      : store_(directory), mustSucceed_(mustSucceed), report_(report) {
    store_.SetCallHook(&ArmFaults);
  }

  // What a process that did not get further with its steps has left is what there is now.
  void Inherit(const Script& script) {
    for (int i = 0; i < report_->progress.started; ++i) {
      const bool done = i < report_->progress.done;
      model_.Apply(i, script[static_cast<size_t>(i)],
                   done ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown);
    }
  }

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

  bool Take(int number, const Step& step) {
    const long before = FaultHits();
    report_->progress.started = number + 1;
    const ScriptedStore::Result result = store_.Run(number, step);
    report_->progress.done = number + 1;
    const bool hit = FaultHits() != before;
    report_->hits += FaultHits() - before;
    if (!result.ran) return true;
    ++report_->steps;
    if (result.status != 0) {
      ++report_->refused;
      if (!hit || mustSucceed_ || !IsExpectedFailure(step.kind, result.status)) {
        return Fail(Describe(number, step) + " gives " + std::to_string(result.status));
      }
    }
    // A range's deletion succeeds whatever becomes of the keys.
    const bool certain = result.status == 0 && !(hit && !mustSucceed_ && step.kind == Kind::DeleteRange);
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
    if (step.kind == Kind::Contains) {
      const bool possible =
          result.contains ? hit || !model_.MustBeAbsent(step.key) : !model_.MustBePresent(step.key);
      if (!possible) return Fail(Describe(number, step) + " is wrong");
    }
    return true;
  }

  ScriptedStore store_;
  StoreModel model_;
  const bool mustSucceed_;
  FaultReport* const report_;
};

}  // namespace

int RunFaultAttempt(const std::string& directory, const FaultPlan& plan, bool mustSucceed,
                    FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  Attempt attempt(directory, mustSucceed, report);
  return attempt.Run(FaultWorkload(), 0) && attempt.RunAfterwards() ? 0 : 1;
}

int RunUntilEnd(const std::string& directory, const FaultPlan& plan, FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  return Attempt(directory, true, report).Run(FaultWorkload(), 0) ? 0 : 1;
}

int RunFaultyRecovery(const std::string& directory, const FaultPlan& plan, FaultReport* report) {
  DropStandardOutput();
  SetFaultPlan(plan);
  Attempt attempt(directory, false, report);
  attempt.Inherit(FaultWorkload());
  return attempt.Run(RecoveryScript(), kNumbersOfRecovery) && attempt.RunAfterwards() ? 0 : 1;
}

}  // namespace Kestrun::Testing
