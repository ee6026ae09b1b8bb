// tools/stat_output.h: what `stat` and `verify` write.
#pragma once

#include <string>

#include "inspect/store_stat.h"
#include "inspect/store_verify.h"
#include "tools/json_bytes.h"

namespace Kestrun::Tools {

Json JsonOfStat(const std::string& store, const Inspect::StoreStat& stat);
void WriteStat(const std::string& store, const Inspect::StoreStat& stat);

Json JsonOfReport(const Inspect::VerifyReport& report);
void WriteReport(const Inspect::VerifyReport& report);

}  // namespace Kestrun::Tools
