// A store in a directory of its own, and short words for what tests do with it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/store.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {

inline constexpr char kNothing[] = "<nothing>";

inline std::string StatusWord(uint32_t status) {
  return "<" + std::string(StatusName(status)) + ">";
}

// The value of a key, or one of the words above.
template <typename Source>
std::string Get(Source& source, const std::string& key) {
  std::optional<std::string> value;
  const uint32_t status = source.Get(key, &value);
  if (status != kStatusOk) return StatusWord(status);
  return value.value_or(kNothing);
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

// What a walk over a range shows, forward or backward; a failure is a last pair.
inline Pairs Walk(const Snapshot& snapshot, const Range& range = Range::All(), bool forward = true) {
  std::unique_ptr<Cursor> cursor;
  Pairs pairs;
  EXPECT_EQ(snapshot.NewCursor(range, &cursor), kStatusOk);
  if (forward) {
    cursor->SeekToFirst();
  } else {
    cursor->SeekToLast();
  }
  while (cursor->Valid()) {
    std::string_view value;
    const uint32_t status = cursor->Value(&value);
    pairs.emplace_back(cursor->Key(), status == kStatusOk ? std::string(value) : StatusWord(status));
    if (forward) {
      cursor->Next();
    } else {
      cursor->Prev();
    }
  }
  if (cursor->Status() != kStatusOk) pairs.emplace_back(StatusWord(cursor->Status()), "");
  return pairs;
}

class StoreTest : public testing::Test {
 protected:
  static constexpr uint32_t kLogSize = 16 * 1024;

  static StoreOptions Options(uint32_t logSize = kLogSize) {
    StoreOptions options;
    options.logSize = logSize;
    options.autoCompact = false;
    return options;
  }
  std::unique_ptr<Store> Open(const StoreOptions& options = Options()) {
    std::unique_ptr<Store> store;
    EXPECT_EQ(Store::Open(path_, options, &store), kStatusOk);
    return store;
  }
  static std::unique_ptr<Snapshot> Take(Store& store) {
    std::unique_ptr<Snapshot> snapshot;
    EXPECT_EQ(store.TakeSnapshot(&snapshot), kStatusOk);
    return snapshot;
  }

  ScratchDirectory directory_{ScratchDirectory::Place::Memory};
  const std::string path_ = directory_.PathOf("store");
};

}  // namespace Kestrun::Testing
