// One run of a workload during which a system call or an allocation fails, and what is found afterwards.
#pragma once

#include <string>

#include "tests/fault/fault_injection.h"
#include "tests/support/kill_workload.h"

namespace Kestrun::Testing {

struct FaultReport {
  KillProgress progress;  // what the processes afterwards start from
  long calls[kFaults];    // how often each call was made by the workload
  long hits;              // calls that failed or did only a part
  int refused;            // steps that gave a status
  int steps;
  char message[1000];
};

enum class Workload {
  Everything,
  // Through Store: a few blocks, of which a merge and a checkpoint make more. Only these two meet failures.
  MergeAndCheckpoint,
};

// Runs the workload in the fresh directory. Every step must give success or a status that is documented for
// it, reads that succeed must be right, and with `mustSucceed` nothing may fail at all. Afterwards, without
// failures, the same process must find everything, and write, flush and compact. 0, or 1 with a message.
// Through Store, what it has open is counted before and after.
int RunFaultAttempt(const std::string& directory, Face face, Workload workload, const FaultPlan& plan,
                    bool mustSucceed, FaultReport* report);

// Begins the workload and ends the process with kEndedByPlan at the call that the plan names. 0 when there is
// no such call.
int RunUntilEnd(const std::string& directory, Face face, const FaultPlan& plan, FaultReport* report);

// As RunFaultAttempt, with a shorter workload on what such a process has left.
int RunFaultyRecovery(const std::string& directory, Face face, const FaultPlan& plan, FaultReport* report);

}  // namespace Kestrun::Testing
