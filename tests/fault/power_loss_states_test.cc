// The store after a loss of power, at any moment of its life and with any part of what was not forced to the
// disk. docs/internals/reliability.md tells what is tried and what was found.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/status.h"
#include "tests/fault/power_loss_states_check.h"
#include "tests/fault/power_loss_states_disk.h"
#include "tests/fault/power_loss_states_recorder.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/scripted_store.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

constexpr size_t kBatch = 64;
constexpr unsigned int kSecondsForOneState = 20;
constexpr uint32_t kLastStage = 6;

// Thousands of small stores are written, and the recorder does not care what holds them.
std::string DirectoryForStates() {
  return ScratchDirectory(ScratchDirectory::Place::Memory).Path();
}

struct Recording {
  std::vector<Event> events;
  History history;
  size_t firstMoment = 0;  // no loss of power before so many events
};

// Runs scripts and records them.
class Recorder {
 public:
  explicit Recorder(const DiskImage& start = {}, const Promise& promise = {}, int firstNumber = 0)
      : root_(DirectoryForStates()), start_(start), face_(promise.face), number_(firstNumber) {
    recording_.history.StartFrom(promise, firstNumber);
    for (const std::string& path : start.directories) mkdir((root_ + "/" + path).c_str(), 0700);
    for (const auto& [path, bytes] : start.files) WriteFile(root_ + "/" + path, bytes);
    if (firstNumber == 0) return;
    recording_.firstMoment = 1;  // the files are there
  }

  // False when a step fails or when the recorder has missed something.
  void Run(const Script& script) {
    CapturedStdout quiet;
    if (recorder_ == nullptr) recorder_ = std::make_unique<FileRecorder>(root_, start_);
    if (store_ == nullptr) store_ = std::make_unique<ScriptedStore>(root_ + "/" + kStoreName, face_);
    for (const Step& step : script) {
      const size_t begin = recorder_->Events().size();
      const size_t syncs = recorder_->SyncsOf("manifest_v5");
      const ScriptedStore::Result result = store_->Run(number_, step);
      ASSERT_TRUE(result.ran && result.status == kStatusOk) << Describe(number_, step) << result.status;
      recorder_->TakeStores();
      recording_.history.Add(step, begin, recorder_->Events().size(),
                             recorder_->SyncsOf("manifest_v5") != syncs);
      ++number_;
    }
  }
  // From here on power may be lost.
  void BeginMoments() { recording_.firstMoment = recorder_->Events().size(); }

  // The recorder has understood everything when its picture of the disk is the directory.
  Recording Finish() {
    store_.reset();
    EXPECT_EQ(recorder_->NotUnderstood(), "");
    recording_.events = recorder_->Events();
    recorder_.reset();

    Disk disk;
    for (const Event& event : recording_.events) disk.Apply(event);
    const DiskImage image = disk.Image(disk.Newest());
    size_t files = 0;
    const std::string directory = root_ + "/" + kStoreName;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      const std::string name = std::string(kStoreName) + "/" + entry.path().filename().string();
      const auto found = image.files.find(name);
      EXPECT_TRUE(found != image.files.end() && found->second == ReadFile(entry.path().string())) << name;
      ++files;
    }
    EXPECT_EQ(files, image.files.size());
    return std::move(recording_);
  }

 private:
  std::string root_;
  DiskImage start_;
  Face face_;
  std::unique_ptr<FileRecorder> recorder_;
  std::unique_ptr<ScriptedStore> store_;
  Recording recording_;
  int number_;
};

struct State {
  DiskImage image;
  Promise promise;
  bool whole;
};

struct Figures {
  size_t moments = 0;
  size_t built = 0;
  size_t tried = 0;
  size_t damaged = 0;
  size_t failed = 0;
  size_t findings[kFindings] = {};
  size_t statesWithFindings = 0;
};

// Opens states in child processes, a batch in each.
class Checker {
 public:
  void Try(State state) {
    states_.push_back(std::move(state));
    if (states_.size() == kBatch) Flush();
  }

  void Flush() {
    verdicts_->fill(Verdict());
    for (int stage = 0; stage < static_cast<int>(kLastStage); stage += 2) {
      while (RunChild(stage)) {
      }
    }
    for (size_t i = 0; i < states_.size(); ++i) Count((*verdicts_)[i]);
    std::error_code ignored;
    for (size_t i = 0; i < states_.size(); ++i) std::filesystem::remove_all(PathOf(i), ignored);
    states_.clear();
  }

  Figures figures;

 private:
  std::string PathOf(size_t state) const { return root_ + "/" + std::to_string(state); }

  // Takes the states through one stage in a process of its own. True when the process did not come to the
  // end and another one has to go on behind the state that it died of.
  bool RunChild(int stage) {
    ChildProcess child([&](ChildLink&) {
      if (!DropStandardOutput()) return 1;
      for (size_t i = 0; i < states_.size(); ++i) {
        Verdict* verdict = &(*verdicts_)[i];
        if (verdict->stage != stage || verdict->failed) continue;
        alarm(kSecondsForOneState);
        ++verdict->stage;
        if (stage == 0)
          CheckFirst(states_[i].image, PathOf(i), states_[i].promise, states_[i].whole, verdict);
        if (stage == 2) CheckSecond(PathOf(i), states_[i].promise, verdict);
        if (stage == 4) CheckThird(PathOf(i), states_[i].promise, verdict);
        ++verdict->stage;
      }
      return 0;
    });
    const int result = child.Wait();
    if (result == 0) return false;
    for (size_t i = 0; i < states_.size(); ++i) {
      Verdict* verdict = &(*verdicts_)[i];
      if (verdict->stage != stage + 1 || verdict->failed) continue;
      verdict->failed = true;
      std::snprintf(verdict->message, sizeof(verdict->message), "process %d ends with %d", stage / 2 + 1,
                    result);
      return true;
    }
    ADD_FAILURE() << "a child ends with " << result << " without a state";
    return false;
  }

  void Count(const Verdict& verdict) {
    ++figures.tried;
    figures.damaged += verdict.damaged ? 1 : 0;
    bool any = false;
    for (size_t kind = 0; kind < kFindings; ++kind) {
      figures.findings[kind] += verdict.findings[kind];
      any = any || verdict.findings[kind] != 0;
    }
    figures.statesWithFindings += any ? 1 : 0;
    if (!verdict.failed) return;
    ++figures.failed;
    if (figures.failed > 10) return;
    const size_t number = static_cast<size_t>(&verdict - verdicts_->data());
    ADD_FAILURE() << verdict.message << "\n" << DescribeState(states_[number]);
  }

  static std::string DescribeState(const State& state) {
    std::string text = std::to_string(state.promise.promised) + " steps promised;";
    for (const auto& [path, bytes] : state.image.files) {
      text += " " + path + " " + std::to_string(bytes.size());
    }
    return text;
  }

  const std::string root_ = DirectoryForStates();
  const SharedMemory<std::array<Verdict, kBatch>> verdicts_;
  std::vector<State> states_;
};

// Builds the states of a recording, each of them once for each promise.
class StateBuilder {
 public:
  StateBuilder(Checker* checker, uint64_t stream, size_t randomStates)
      : checker_(checker), random_(TestRandom(stream)), randomStates_(randomStates) {}

  void TryAll(const Recording& recording) {
    Disk disk;
    for (size_t moment = 0; moment <= recording.events.size(); ++moment) {
      if (moment != 0) disk.Apply(recording.events[moment - 1]);
      if (moment < recording.firstMoment) continue;
      ++checker_->figures.moments;
      TryMoment(disk, recording.history.PromiseAt(moment));
    }
    checker_->Flush();
  }

  // The states whose file of this name is there are kept, so that what happens to them can be recorded.
  void Keep(const std::string& name, std::vector<State>* kept) {
    keptName_ = std::string(kStoreName) + "/" + name;
    kept_ = kept;
  }

 private:
  void TryMoment(const Disk& disk, const Promise& promise) {
    const Disk::Choice oldest = disk.Oldest();
    const Disk::Choice newest = disk.Newest();
    Try(disk, oldest, promise, true);
    Try(disk, newest, promise, true);

    const std::vector<size_t> unsettled = disk.Unsettled();
    for (const size_t item : unsettled) {
      for (const Disk::Choice& others : {oldest, newest}) {
        Disk::Choice choice = others;
        choice[item] = others[item] == 0 ? newest[item] : 0;
        Try(disk, choice, promise, false);
        if (disk.Versions(item) < 3) continue;
        choice[item] = 1 + static_cast<uint32_t>(random_() % (disk.Versions(item) - 2));
        Try(disk, choice, promise, false);
      }
    }
    for (size_t i = 0; i < randomStates_ && unsettled.size() > 1; ++i) {
      Disk::Choice choice = newest;
      for (const size_t item : unsettled)
        choice[item] = static_cast<uint32_t>(random_() % disk.Versions(item));
      Try(disk, choice, promise, false);
    }
  }

  void Try(const Disk& disk, const Disk::Choice& choice, const Promise& promise, bool whole) {
    ++checker_->figures.built;
    const uint64_t hash = Mix(disk.Hash(choice) ^ Mix(static_cast<uint64_t>(promise.promised)));
    if (!seen_.insert(hash).second) return;
    State state = {disk.Image(choice), promise, whole};
    if (kept_ != nullptr && state.image.files.count(keptName_) != 0) kept_->push_back(state);
    checker_->Try(std::move(state));
  }

  Checker* checker_;
  std::mt19937_64 random_;
  size_t randomStates_;
  std::set<uint64_t> seen_;
  std::string keptName_;
  std::vector<State>* kept_ = nullptr;
};

Step Open(uint32_t walSize) {
  Step step = {Step::Kind::Open};
  step.size = walSize;
  return step;
}
Step Insert(int key, uint32_t size) {
  return {Step::Kind::Insert, key, 0, size};
}
Step Append(int key, int type, uint32_t size) {
  return {Step::Kind::Append, kFirstRecordKey + key, type, size};
}

void Print(const char* what, const Figures& figures) {
  std::printf(
      "[ figures  ] %s: %zu moments, %zu states, %zu of them different and opened, %zu lost something "
      "promised or failed\n",
      what, figures.moments, figures.built, figures.tried, figures.failed);
  std::printf(
      "[ figures  ]   %zu with a damaged record in the log; %zu with findings: older value %zu, older "
      "deletion %zu, value not arrived %zu, key nobody wrote %zu, hidden behind damage %zu\n",
      figures.damaged, figures.statesWithFindings, figures.findings[0], figures.findings[1],
      figures.findings[2], figures.findings[3], figures.findings[4]);
  std::fflush(stdout);
}

Figures TryAll(const char* what, const Recording& recording, uint64_t stream, size_t randomStates) {
  Checker checker;
  StateBuilder(&checker, stream, randomStates).TryAll(recording);
  Print(what, checker.figures);
  return checker.figures;
}

// Values of all sizes, so that records lie anywhere on the pages.
void AddWrites(Script* script, std::mt19937_64* random, int count) {
  for (int i = 0; i < count; ++i) {
    const int key = static_cast<int>((*random)() % kFirstCheckKey);
    const auto size = static_cast<uint32_t>((*random)() % 900);
    switch ((*random)() % 8) {
      case 0:
        script->push_back({Step::Kind::Delete, key});
        break;
      case 1:
        script->push_back(Insert(kPlainKeys + key % kLongKeys, 3 * size));
        break;
      default:
        script->push_back(Insert(key, size + 16));
    }
  }
}

TEST(CrashStatesTest, AStoreOfAllOperationsKeepsWhatWasFlushed) {
  std::mt19937_64 random(7);
  Script script = {Open(16384)};
  AddWrites(&script, &random, 30);
  for (int flush = 0; flush < 3; ++flush) {
    AddWrites(&script, &random, 6);
    script.push_back({Step::Kind::Flush});
  }
  script.push_back({Step::Kind::DeleteRange, 2, 6});
  script.push_back({Step::Kind::Compact});
  AddWrites(&script, &random, 20);
  script.push_back({Step::Kind::Flush});
  script.push_back({Step::Kind::Clear});
  AddWrites(&script, &random, 25);
  script.push_back({Step::Kind::Close});
  script.push_back(Open(16384));
  for (int flush = 0; flush < 4; ++flush) {
    AddWrites(&script, &random, 5);
    script.push_back({Step::Kind::Flush});
  }
  script.push_back({Step::Kind::Compact});
  AddWrites(&script, &random, 5);
  script.push_back({Step::Kind::Flush});
  script.push_back({Step::Kind::Close});
  script.push_back(Open(24576));
  AddWrites(&script, &random, 25);

  Recorder recorder;
  recorder.Run(script);
  if (HasFatalFailure()) return;
  EXPECT_EQ(TryAll("all operations", recorder.Finish(), 1, TestSize(2, 100)).failed, 0u);
}

// Fills the log with records of one size, so many times. Power may be lost from the second time on.
void RecordEqualFillings(Recorder* recorder, int fillings) {
  constexpr uint32_t kValueSize = 128 - 40 - 7;
  constexpr int kRecords = 90;
  for (int filling = 0; filling < fillings; ++filling) {
    Script script;
    if (filling == 0) script.push_back(Open(12288));
    for (int i = 0; i < kRecords; ++i) {
      const int key = (i * 5 + filling * 7) % kFirstCheckKey;
      script.push_back(i == 36 || i == 70 ? Step{Step::Kind::Delete, key} : Insert(key, kValueSize));
    }
    script.push_back({Step::Kind::Flush});
    recorder->Run(script);
    if (testing::Test::HasFatalFailure()) return;
    if (filling == 1) recorder->BeginMoments();
  }
}

// Records of one size stand where older ones stood: a page of the log that did not arrive shows what was on
// it in an earlier filling, with sound checksums.
TEST(CrashStatesTest, ALogOfEqualSizedRecordsIsTheOnlyPlaceForOlderValues) {
  Recorder recorder;
  RecordEqualFillings(&recorder, 4);
  if (HasFatalFailure()) return;
  const Figures figures = TryAll("equal-sized records", recorder.Finish(), 3, TestSize(2, 100));
  EXPECT_EQ(figures.failed, 0u);
}

// A store with two blocks of other keys, whose filters fill the manifest's first page up to `end`.
DiskImage StoreWithLongManifest(size_t end) {
  const std::string root = DirectoryForStates();
  const std::string path = root + "/" + kStoreName;
  const size_t keys = end - 128 - 2 * 57;  // a byte of filter for each; 56 bytes and one more for each block
  const CapturedStdout quiet;
  LSDBConfig config = {};
  config.walSize = 1 << 20;
  LSDBImpl* engine = nullptr;
  EXPECT_EQ(LSDBImpl::Open(path, config, &engine), kStatusOk);
  for (size_t i = 0; i < keys; ++i) {
    EXPECT_EQ(engine->Insert(Key(kOtherKeys + std::to_string(i)), 86400, "", 0), kStatusOk);
    if (i + 1 == keys / 2 || i + 1 == keys) {
      EXPECT_EQ(engine->ResetWal(), kStatusOk);
    }
  }
  delete engine;
  DiskImage image = {{kStoreName}, {}};
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    const std::string name = entry.path().filename().string();
    if (name != "wal_v5") image.files[std::string(kStoreName) + "/" + name] = ReadFile(entry.path().string());
  }
  EXPECT_EQ(image.files[std::string(kStoreName) + "/manifest_v5"].size(), end);
  return image;
}

// A log of one page arrives as it once was or not at all. The manifest has entries on both sides of a page's
// end, so that an entry and a replacement of all of them can arrive in parts; and power is lost once more
// while the store is opened after that.
TEST(CrashStatesTest, AReplacementOfTheManifestIsFinishedOrDroppedAlsoAfterASecondLossOfPower) {
  constexpr uint32_t kLogSize = 4096;
  Promise nothing;
  nothing.walSize = kLogSize;
  nothing.opened = true;
  Recorder recorder(StoreWithLongManifest(kDiskPage - 50), nothing, 1000);
  Script script = {Open(kLogSize)};
  for (int i = 0; i < 4; ++i) {
    script.push_back(Insert(i, 30));
    script.push_back({Step::Kind::Flush});
  }
  script.push_back(Insert(7, 40));
  script.push_back({Step::Kind::Compact});
  script.push_back(Insert(8, 50));
  script.push_back({Step::Kind::Flush});
  recorder.Run(script);
  if (HasFatalFailure()) return;

  Checker checker;
  StateBuilder builder(&checker, 4, TestSize(8, 400));
  std::vector<State> interrupted;
  builder.Keep("manifest_v5.next", &interrupted);
  builder.TryAll(recorder.Finish());
  Print("replacement of the manifest", checker.figures);
  EXPECT_EQ(checker.figures.failed, 0u);
  EXPECT_EQ(checker.figures.statesWithFindings, 0u);
  ASSERT_FALSE(interrupted.empty());

  Checker second;
  std::mt19937_64 random = TestRandom(5);
  std::shuffle(interrupted.begin(), interrupted.end(), random);
  interrupted.resize(std::min<size_t>(interrupted.size(), std::max<uint64_t>(TestSize(8, 1000), 1)));
  for (const State& state : interrupted) {
    Recorder again(state.image, state.promise, 50000);
    again.Run({Open(kLogSize), Insert(1, 60), {Step::Kind::Flush}, Insert(2, 60)});
    if (HasFatalFailure()) return;
    StateBuilder(&second, 6, TestSize(2, 20)).TryAll(again.Finish());
  }
  Print("a second loss of power", second.figures);
  EXPECT_EQ(second.figures.failed, 0u);
  EXPECT_EQ(second.figures.statesWithFindings, 0u);
}

TEST(CrashStatesTest, RecordsKeepTheirTypes) {
  Script script = {Open(8192)};
  for (int i = 0; i < 60; ++i) {
    if (i % 20 == 7) script.push_back({Step::Kind::CreateType, 0, i});
    script.push_back(Append(i % 5, i / 15, static_cast<uint32_t>(200 + i * 37 % 300)));
    if (i % 16 == 9) script.push_back({Step::Kind::Flush});
    if (i == 45) script.push_back({Step::Kind::Compact});
  }
  Recorder recorder;
  recorder.Run(script);
  if (HasFatalFailure()) return;
  EXPECT_EQ(TryAll("typed records", recorder.Finish(), 2, TestSize(4, 100)).failed, 0u);
}

// What Store has written it can prove:
// of no state is there anything to say but that something unsynced is missing.
void ExpectNoFindings(const Figures& figures) {
  EXPECT_EQ(figures.failed, 0u);
  EXPECT_EQ(figures.statesWithFindings, 0u);
  EXPECT_GT(figures.damaged, 0u);
}

Promise NothingYet() {
  Promise promise;
  promise.face = Face::Safe;
  return promise;
}

TEST(CrashStatesTest, AStoreThatStoreHasWrittenShowsNothingThatNobodyWrote) {
  std::mt19937_64 random(17);
  Script script = {Open(16384)};
  const auto write = [&](int count) {
    AddWrites(&script, &random, count);
    const int key = static_cast<int>(random() % (kFirstCheckKey - 4));
    const auto size = static_cast<uint32_t>(16 + random() % 900);
    script.push_back({random() % 2 == 0 ? Step::Kind::Batch : Step::Kind::Transact, key, key + 3, size});
  };
  write(14);
  for (int flush = 0; flush < 2; ++flush) {
    write(6);
    script.push_back({Step::Kind::Flush});
  }
  script.push_back({Step::Kind::DeleteRange, 2, 6});
  script.push_back({Step::Kind::Compact});
  write(12);
  script.push_back({Step::Kind::Sync});
  write(4);
  script.push_back({Step::Kind::Clear});
  write(10);
  script.push_back({Step::Kind::Close});
  script.push_back(Open(24576));  // the log is extended
  write(12);

  Recorder recorder({}, NothingYet());
  recorder.Run(script);
  if (HasFatalFailure()) return;
  ExpectNoFindings(TryAll("written by Store", recorder.Finish(), 11, TestSize(1, 100)));
}

// A page that did not arrive shows a record of an earlier filling, whose own checksums are sound.
TEST(CrashStatesTest, ALogOfEqualSizedRecordsOfStoreShowsNoEarlierFilling) {
  Recorder recorder({}, NothingYet());
  RecordEqualFillings(&recorder, 3);
  if (HasFatalFailure()) return;
  ExpectNoFindings(TryAll("equal-sized records of Store", recorder.Finish(), 12, TestSize(1, 100)));
}

}  // namespace
}  // namespace Kestrun::Testing
