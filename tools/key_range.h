// tools/key_range.h: the keys of a range, as a person expects them: sorted, each once, none forgotten.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kestrun/lsdb.h"

namespace Kestrun::Tools {

struct KeyRange {
  std::optional<Key> from;  // the first key that belongs to it
  std::optional<Key> to;    // the first key behind it
  std::string prefix;       // what its keys begin with

  bool Holds(const Key& key) const;
};

// The keys that any file of the store has an entry for, deleted and expired ones included. Throws
// StoreFailure.
std::vector<Key> ListKeys(LSDBImpl& store, const KeyRange& range);

}  // namespace Kestrun::Tools
