#include "tests/support/kill_workload.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "kestrun/status.h"
#include "tests/support/child_process.h"
#include "tests/support/merge_step.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr uint32_t kWalSize = 2048;
constexpr uint32_t kLongWalSize = 4096;

// The steps of generations get numbers of their own, and so do their values.
constexpr int kNumbersPerGeneration = 1000;

constexpr int kCopyOfGeneration = 100;

Script GenerationScript(int generation, Face face) {
  Script script;
  for (int round = 0; round < 4; ++round) {
    const int key = (generation * 5 + round) % kPlainKeys;
    InsertKeys(&script, key, key, 30);
    script.push_back({Kind::Insert, kPlainKeys + round % kLongKeys, 0, 44});
    if (round == 1) script.push_back({Kind::Delete, (key + 7) % kPlainKeys});
    script.push_back({Kind::Append, kFirstRecordKey + round, (generation + round) % 4, 20});
    script.push_back({Kind::Flush});
  }
  script.push_back({Kind::Insert, generation, 0, 50});
  if (face == Face::Safe) {
    script.push_back({Kind::Batch, 4, 9, 35});
    script.push_back({Kind::Merge});
    script.push_back({Kind::Transact, 6, 12, 45});
    script.push_back({Kind::Checkpoint, 0, kCopyOfGeneration + generation});
    script.push_back({Kind::Sync});
  }
  script.push_back({Kind::Compact});
  InsertKeys(&script, 9, 10, 25);
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  return script;
}

int Fail(KillProgress* progress, const std::string& message) {
  std::snprintf(progress->message, sizeof(progress->message), "%s", message.c_str());
  return 1;
}

void EndAfterReopening(Script* script) {
  script->push_back({Kind::Close});
  script->push_back({Kind::Open, 0, 0, kWalSize});
  script->push_back({Kind::Delete, 3});
  InsertKeys(script, 18, 19, 70);
  script->push_back({Kind::Close});
}

Script OlderWorkload() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  InsertKeys(&script, 0, 13, 40);
  script.push_back({Kind::Append, kFirstRecordKey, 0, 30});
  InsertKeys(&script, 2, 6, 60);  // the log is full on the way
  script.push_back({Kind::Delete, 0});
  script.push_back({Kind::CreateType, 0, 1});
  script.push_back({Kind::Append, kFirstRecordKey + 1, 1, 24});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 16, 17, 33);
  script.push_back({Kind::DeleteRange, 4, 7});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 5, 5, 20);
  script.push_back({Kind::Delete, 1});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 6, 8, 45);
  script.push_back({Kind::Compact});
  script.push_back({Kind::Append, kFirstRecordKey + 2, 2, 18});
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  InsertKeys(&script, 7, 7, 1500);
  InsertKeys(&script, 8, 8, 700);  // flushes
  InsertKeys(&script, 3, 3, 800);
  script.push_back({Kind::Delete, 2});
  InsertKeys(&script, 9, 9, 900);  // flushes
  script.push_back({Kind::Flush});
  script.push_back({Kind::Compact});
  InsertKeys(&script, 0, 2, 22);
  script.push_back({Kind::Clear});
  InsertKeys(&script, 2, 3, 28);
  script.push_back({Kind::Append, kFirstRecordKey + 3, 3, 16});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 3, 4, 31);
  EndAfterReopening(&script);
  return script;
}

Script SafeWorkload() {
  Script script = {{Kind::Open, 0, 0, kWalSize}};
  InsertKeys(&script, 0, 9, 40);
  script.push_back({Kind::Batch, 3, 7, 30});
  script.push_back({Kind::Transact, 8, 12, 25});
  script.push_back({Kind::Append, kFirstRecordKey, 0, 30});
  script.push_back({Kind::Sync});
  InsertKeys(&script, 2, 6, 60);  // the log is full on the way
  script.push_back({Kind::Delete, 0});
  script.push_back({Kind::Flush});
  script.push_back({Kind::Batch, 0, 12, 90});
  script.push_back({Kind::Transact, 2, 10, 60});  // flushes
  script.push_back({Kind::DeleteRange, 4, 7});
  script.push_back({Kind::Checkpoint, 0, 1});
  script.push_back({Kind::Flush});
  script.push_back({Kind::Insert, 5, 0, 20});
  script.push_back({Kind::Delete, 1});
  script.push_back({Kind::Flush});
  InsertKeys(&script, 1, 2, 33);
  script.push_back({Kind::Merge});
  script.push_back({Kind::Checkpoint, 0, 2});
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kLongWalSize});  // the log is extended
  InsertKeys(&script, 7, 7, 2500);
  script.push_back({Kind::Batch, 9, 13, 400});  // flushes
  for (int flush = 0; flush < 4; ++flush) {
    script.push_back({Kind::Insert, 3 + flush, 0, 24});
    script.push_back({Kind::Flush});
  }
  script.push_back({Kind::Merge});
  script.push_back({Kind::Transact, 0, 4, 50});
  script.push_back({Kind::Compact});
  InsertKeys(&script, 0, 2, 22);
  script.push_back({Kind::Clear});
  script.push_back({Kind::Batch, 2, 6, 28});
  script.push_back({Kind::Flush});
  script.push_back({Kind::Transact, 3, 8, 31});
  InsertKeys(&script, 16, 17, 33);
  script.push_back({Kind::Checkpoint, 0, 3});
  EndAfterReopening(&script);
  return script;
}

}  // namespace

Script KillWorkload(Face face) {
  return face == Face::Safe ? SafeWorkload() : OlderWorkload();
}

int RunKillWorkload(const std::string& directory, Face face, KillProgress* progress) {
  DropStandardOutput();
  const Script script = KillWorkload(face);
  ScriptedStore store(directory, face);
  store.SetMerge(&MergeOnce);
  for (int i = 0; i < static_cast<int>(script.size()); ++i) {
    const Step& step = script[static_cast<size_t>(i)];
    progress->started = i + 1;
    const ScriptedStore::Result result = store.Run(i, step);
    if (result.status != 0 || !result.ran) {
      return Fail(progress, Describe(i, step) + " gives " + std::to_string(result.status));
    }
    progress->done = i + 1;
    progress->merges = MergesDone();
  }
  return 0;
}

std::string CheckCopies(const std::string& directory, const Script& script, int started, int done) {
  StoreModel model(Face::Safe);
  for (int i = 0; i < started; ++i) {
    const Step& step = script[static_cast<size_t>(i)];
    if (step.kind != Kind::Checkpoint) {
      model.Apply(i, step, StoreModel::Outcome::Done);
      continue;
    }
    const std::string copy = ScriptedStore::CopyPath(directory, step.end);
    const std::string where = "the checkpoint of step " + std::to_string(i) + ": ";
    const bool isDone = i < done;
    const bool isThere = access(copy.c_str(), F_OK) == 0;
    if (!isThere && isDone) return where + "not there";
    if (!isDone && !isThere) {
      // Whatever the killed process has left.
      ScriptedStore store(directory, Face::Safe);
      uint32_t status = store.Run(0, {Kind::Open, 0, 0, kWalSize}).status;
      if (status == kStatusOk) status = store.Run(i, step).status;
      if (status != kStatusOk) return where + "gives " + std::to_string(status) + " after the kill";
    }
    if (access((copy + ".partial").c_str(), F_OK) == 0) return where + "a part of it is left";
    ScriptedStore opened(copy, Face::Safe);
    StoreModel held = model;
    if (isDone) {
      std::vector<int> found;
      uint32_t status = kStatusOk;
      const std::string wrong = ReadThroughSnapshot(copy, &status, &found);
      if (!wrong.empty() || status != kStatusOk) return where + wrong + " status " + std::to_string(status);
      for (int key = 0; key < kScriptKeys; ++key) {
        if (!held.Allows(key, found[static_cast<size_t>(key)]))
          return where + "wrong about " + ScriptKey(key);
      }
      continue;
    }
    if (opened.Run(0, {Kind::Open, 0, 0, kWalSize}).status != kStatusOk) return where + "does not open";
    if (const std::string wrong = opened.Verify(&held); !wrong.empty()) return where + wrong;
  }
  return "";
}

int RunGeneration(int generation, const std::string& directory, Face face, KillProgress* progress) {
  DropStandardOutput();
  const std::string who = "generation " + std::to_string(generation) + ": ";
  StoreModel model(face);
  if (generation == 1) {
    const Script script = KillWorkload(face);
    for (int i = 0; i < progress->started; ++i) {
      const auto outcome = i < progress->done ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown;
      model.Apply(i, script[static_cast<size_t>(i)], outcome);
    }
  } else {
    for (int key = 0; key < kScriptKeys; ++key) model.Settle(key, progress->settled[key]);
  }

  ScriptedStore store(directory, face);
  store.SetMerge(&MergeOnce);
  if (const auto result = store.Run(0, {Kind::Open, 0, 0, kWalSize}); result.status != 0) {
    return Fail(progress, who + "Open gives " + std::to_string(result.status));
  }
  if (const std::string wrong = store.Verify(&model); !wrong.empty()) return Fail(progress, who + wrong);
  if (generation == 1 && face == Face::Safe) {
    const std::string wrong = CheckCopies(directory, KillWorkload(face), progress->started, progress->done);
    if (!wrong.empty()) return Fail(progress, who + wrong);
  }

  int number = generation * kNumbersPerGeneration;
  for (const Step& step : GenerationScript(generation, face)) {
    const ScriptedStore::Result result = store.Run(number, step);
    if (result.status != 0) {
      return Fail(progress, who + Describe(number, step) + " gives " + std::to_string(result.status));
    }
    model.Apply(number++, step, StoreModel::Outcome::Done);
  }
  if (const std::string wrong = store.Verify(&model); !wrong.empty()) {
    return Fail(progress, who + "at its end " + wrong);
  }
  for (int key = 0; key < kScriptKeys; ++key) {
    for (int value = kAbsent; value <= number; ++value) {
      if (model.Allows(key, value)) progress->settled[key] = value;
    }
  }
  return 0;
}

}  // namespace Kestrun::Testing
