#include "tests/support/kill_workload.h"

#include <cstdio>
#include <cstring>

#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr uint32_t kWalSize = 2048;

// The steps of generations get numbers of their own, and so do their values.
constexpr int kNumbersPerGeneration = 1000;

Script GenerationScript(int generation) {
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

}  // namespace

Script KillWorkload() {
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
  script.push_back({Kind::Close});
  script.push_back({Kind::Open, 0, 0, kWalSize});
  script.push_back({Kind::Delete, 3});
  InsertKeys(&script, 18, 19, 70);
  script.push_back({Kind::Close});
  return script;
}

int RunKillWorkload(const std::string& directory, KillProgress* progress) {
  DropStandardOutput();
  const Script script = KillWorkload();
  ScriptedStore store(directory);
  for (int i = 0; i < static_cast<int>(script.size()); ++i) {
    const Step& step = script[static_cast<size_t>(i)];
    progress->started = i + 1;
    const ScriptedStore::Result result = store.Run(i, step);
    if (result.status != 0 || !result.ran) {
      return Fail(progress, Describe(i, step) + " gives " + std::to_string(result.status));
    }
    progress->done = i + 1;
  }
  return 0;
}

int RunGeneration(int generation, const std::string& directory, KillProgress* progress) {
  DropStandardOutput();
  StoreModel model;
  if (generation == 1) {
    const Script script = KillWorkload();
    for (int i = 0; i < progress->started; ++i) {
      const auto outcome = i < progress->done ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown;
      model.Apply(i, script[static_cast<size_t>(i)], outcome);
    }
  } else {
    for (int key = 0; key < kScriptKeys; ++key) model.Settle(key, progress->settled[key]);
  }

  ScriptedStore store(directory);
  const std::string who = "generation " + std::to_string(generation) + ": ";
  if (const auto result = store.Run(0, {Kind::Open, 0, 0, kWalSize}); result.status != 0) {
    return Fail(progress, who + "Open gives " + std::to_string(result.status));
  }
  if (const std::string wrong = store.Verify(&model); !wrong.empty()) return Fail(progress, who + wrong);

  int number = generation * kNumbersPerGeneration;
  for (const Step& step : GenerationScript(generation)) {
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
