// rows.h: the work that is measured. Each row is one kind of work on one store, in a process of its own.
#pragma once

#include <cstdint>
#include <string>

namespace Bench {

struct Setting {
  std::string directory;       // exists, is empty, and is on the disk that is measured
  uint64_t entries = 100'000;  // of the store
  uint64_t valueBytes = 100;
  uint64_t logBytes = 4 << 20;
};

// Measures the row `name` and prints what was found to `resultDescriptor`, a line for each figure: name, tab,
// number. A peer that can't do the work gives the line "impossible". False when there is no such row.
bool MeasureRow(const std::string& name, const Setting& setting, int resultDescriptor);

}  // namespace Bench
