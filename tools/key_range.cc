#include "tools/key_range.h"

#include <algorithm>
#include <cstring>

#include "tools/options.h"
#include "tools/store.h"

namespace Kestrun::Tools {
namespace {

bool BeginsWith(const Key& key, const std::string& prefix) {
  return key.Size() >= prefix.size() && std::memcmp(key.Data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

bool KeyRange::Holds(const Key& key) const {
  return (!from || !(key < *from)) && (!to || key < *to) && BeginsWith(key, prefix);
}

// Where the bounds of an enumeration have one primary the store asks only the blocks that have a key of that
// primary listed in their filters, which leaves out the primary's neighbours. So the enumeration always runs
// to the last key there is, whose primary is its own, and each source is left at the end of the range.
std::vector<Key> ListKeys(LSDBImpl& store, const KeyRange& range) {
  const Key last(std::string(kMaxKey, '\xFF'));
  Key begin(range.prefix);
  if (range.from && begin < *range.from) begin = *range.from;

  std::vector<Key> keys;
  MustSucceed("listing the keys", [&] {
    keys.clear();
    return store.EnumerateKeys(begin, last, [&](const Key& key) {
      // Every key from `begin` on that does not belong to the range lies behind it.
      if (!range.Holds(key)) return true;
      keys.push_back(key);
      return false;
    });
  });

  DataEntry entry;
  if (range.Holds(last) && FindEntry(store, last, &entry) != EntryState::Missing) keys.push_back(last);
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

}  // namespace Kestrun::Tools
