// Four processes of two threads each do random operations in one directory. Each thread owns some keys and
// reads all: nothing acknowledged may be lost, and nothing that is read may be older than what was told.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/status.h"
#include "tests/process/model_table.h"
#include "tests/process/model_worker.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/thread_diagnostics.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::kModelProcesses;
using Testing::kModelThreads;
using Testing::ModelProcess;
using Testing::ModelTable;
using Testing::ModelWorker;
using Testing::ScratchDirectory;
using Testing::ThreadDiagnostics;

// Each process is ended and started again so often, while the others go on.
constexpr unsigned kGenerations = 4;
constexpr uint32_t kWalSize = 16 * 1024;  // some 80 entries

struct Run {
  std::string path;
  ModelTable* table;
  uint64_t operations;  // of one thread in one generation
  bool clears;
};

int RunThreads(const Run& run, unsigned slot, unsigned generation) {
  const ThreadDiagnostics diagnostics;
  ModelProcess process(*run.table, run.path, kWalSize, run.clears);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kModelThreads; ++i) {
    const unsigned writer = slot * kModelThreads + i;
    threads.emplace_back([&run, &process, writer, generation] {
      ModelWorker worker(process, writer, writer * kGenerations + generation);
      worker.Run(run.operations);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return run.table->failed ? 1 : 0;
}

// One process after the other.
int RunGenerations(const Run& run, unsigned slot) {
  for (unsigned generation = 0; generation < kGenerations; ++generation) {
    ChildProcess process([&](ChildLink&) { return RunThreads(run, slot, generation); });
    if (const int status = process.Wait(); status != 0) {
      run.table->Fail("process " + std::to_string(slot) + " ended with " + std::to_string(status));
      return status;
    }
  }
  return 0;
}

// Looks at everything from a new process, and once more when all is in one block.
int ReadEverything(const Run& run) {
  const ThreadDiagnostics diagnostics;
  ModelProcess process(*run.table, run.path, kWalSize, false);
  ModelWorker worker(process, 0, 0);
  worker.ReadAll();
  worker.Flush();
  worker.ReadAll();
  worker.Compact();
  worker.ReadAll();
  return run.table->failed ? 1 : 0;
}

void RunModel(uint64_t operations, bool clears) {
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  const Run run = {directory.Path(), ModelTable::Make(),
                   operations / (kModelProcesses * kModelThreads * kGenerations) + 1, clears};
  Testing::TestSeed();
  {
    std::vector<std::unique_ptr<ChildProcess>> slots;
    for (unsigned slot = 0; slot < kModelProcesses; ++slot) {
      slots.push_back(
          std::make_unique<ChildProcess>([&run, slot](ChildLink&) { return RunGenerations(run, slot); }));
    }
    for (const auto& slot : slots) EXPECT_EQ(slot->Wait(), 0);
  }
  for (int i = 0; i < 2 && !run.table->failed; ++i) {
    ChildProcess reader([&run](ChildLink&) { return ReadEverything(run); });
    EXPECT_EQ(reader.Wait(), 0);
  }
  EXPECT_STREQ(run.table->failure, "");
  std::printf("%" PRIu64 " operations in %u processes, %" PRIu64 " flushes and %" PRIu64
              " compactions asked for, %" PRIu64 " clears, %" PRIu64 " calls repeated for want of a lock\n",
              run.table->operations.load(), kModelProcesses * kGenerations, run.table->flushes.load(),
              run.table->compactions.load(), run.table->clearsOver.load(), run.table->lockFailures.load());
}

TEST(ProcessModel, FourProcessesLoseNothingAcknowledgedAndReadNothingStale) {
  RunModel(Testing::TestSize(200000, 10000000), false);
}

TEST(ProcessModel, WhatWasThereBeforeAClearStaysAwayOnceTheManifestHasMoved) {
  RunModel(Testing::TestSize(50000, 1000000), true);
}

}  // namespace
}  // namespace Kestrun
