// tools/stat_output.h: what `stat` and `verify` write.
#pragma once

#include <string>

#include "inspect/space_stat.h"
#include "inspect/store_stat.h"
#include "inspect/store_verify.h"

namespace Kestrun::Tools {

struct StatReport {
  std::string store;
  uint64_t now = 0;  // seconds since the Unix epoch
  Inspect::StoreStat files;
  Inspect::SpaceStat space;
};

// Whether compacting pays, in a sentence.
std::string CompactionAdvice(const StatReport& report);

void WriteStatJson(const StatReport& report);
void WriteStatText(const StatReport& report);
// A page that needs no other file.
std::string StatPage(const StatReport& report);

void WriteVerifyJson(const Inspect::VerifyReport& report);
void WriteVerifyText(const Inspect::VerifyReport& report);

}  // namespace Kestrun::Tools
