// What the killed processes of the kill sweep do, and what the processes after them expect to find.
#pragma once

#include <atomic>
#include <string>

#include "tests/support/scripted_store.h"

namespace Kestrun::Testing {

// Everything that changes a store, with flushes inside writes, compactions, a clear and reopenings; through
// Store also batches, transactions, syncs, checkpoints, a log that is extended,
// and merges of neighbouring blocks.
Script KillWorkload(Face face);

// Lies in memory that all processes of one attempt share; writing to it takes no system call.
struct KillProgress {
  std::atomic<int> started;  // steps that were begun
  std::atomic<int> done;     // steps that were acknowledged
  int settled[kScriptKeys];  // what the last generation left under each key
  int merges;                // that have changed the list of blocks
  char message[1000];        // what went wrong
};

// The workload, in the directory. 0, or 1 with a message when a step fails.
int RunKillWorkload(const std::string& directory, Face face, KillProgress* progress);

// Generation 1 finds what the killed process left; the others what the one before them left. Each of them
// checks every key, writes, flushes, compacts, reopens, and checks again; through Store also the checkpoints.
// 0, or 1 with a message.
int RunGeneration(int generation, const std::string& directory, Face face, KillProgress* progress);

// Checks the checkpoints of a script of which `started` steps were begun and `done` were acknowledged: those
// that were acknowledged are there and hold what the store held; the one under way is whole or absent, and
// can be made. Empty, or a message.
std::string CheckCopies(const std::string& directory, const Script& script, int started, int done);

}  // namespace Kestrun::Testing
