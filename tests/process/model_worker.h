// One thread of one of the processes that share a store: does random operations and holds what it finds
// against the table.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/series.h"
#include "tests/process/model_table.h"

namespace Kestrun::Testing {

// What the threads of one process share.
struct ModelProcess {
  // Opens the store twice, as an engine and as a series. Ends the process when that fails.
  ModelProcess(ModelTable& table, const std::string& path, uint32_t walSize, bool clears);

  ModelTable& table;
  const bool clears;
  std::unique_ptr<LSDBImpl> engine;
  std::unique_ptr<Series> series;
  std::array<std::atomic<uint64_t>, kModelKeys> floors{};  // like those of the table, for this process only
};

class ModelWorker {
 public:
  // `writer` owns its keys; `stream` is its place among the generators of the test.
  ModelWorker(ModelProcess& process, unsigned writer, uint64_t stream);

  void Run(uint64_t operations);
  // Reads every key of everybody.
  void ReadAll();
  void Flush();
  void Compact();

 private:
  using Operation = std::function<uint32_t()>;

  uint64_t Draw(uint64_t below) { return random_() % below; }
  unsigned OwnKey() { return writer_ * kKeysEach + static_cast<unsigned>(Draw(kKeysEach)); }
  unsigned AnyKey() { return static_cast<unsigned>(Draw(kModelKeys)); }

  void Step();
  void WriteNext(unsigned key);
  void DeleteRange();
  void Read(unsigned key);
  void ReadRaw(unsigned key);
  void ReadTyped(unsigned key);
  void ReadContains(unsigned key);
  void ReadEntry(unsigned key);
  void ReadRange();
  void Clear();

  uint32_t Insert(unsigned key, uint64_t version);
  void Expect(ModelExpectation& expectation, uint64_t version);
  void Fail(const std::string& what);
  // Runs an operation until it gets its locks and a deletion marker counts as nothing found; it must succeed.
  void Retry(const char* what, const Operation& operation);
  // Looks at what the last call printed. True when it says that a lock was not obtained.
  bool LockFailed(const char* what);

  ModelProcess& process_;
  ModelTable& table_;
  const unsigned writer_;
  std::mt19937_64 random_;
};

}  // namespace Kestrun::Testing
