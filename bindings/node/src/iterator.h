// bindings/node/src/iterator.h: walks a range of keys, forward or backward, some entries at a time.
//
// Ownership: script shares it, and so does a read under way.
// Threads:   one at a time, except for Abort.
// Failure:   statuses; a failed read may be repeated from where it was by seeking.
#pragma once

#include <kestrun/cursor.h>
#include <kestrun/snapshot.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database.h"
#include "script_values.h"

namespace Kestrun::Script {

// One end of a range, in stored keys.
struct Bound {
  std::string key;
  bool inclusive = false;
};

struct IteratorOptions {
  std::optional<Bound> lower, upper;
  bool reverse = false;
  Form keys = Form::Text, values = Form::Text;
};

class Iterator : public Held {
 public:
  static constexpr Kind kKind = Kind::Iterator;

  struct Entry {
    std::string key;    // as script has it; empty when keys are not wanted
    std::string value;  // empty when values are not wanted
  };
  struct Entries {
    std::vector<Entry> entries;
    bool ended = false;  // there are no more
  };

  static uint32_t Create(std::shared_ptr<Database> database, const Snapshot& snapshot,
                         IteratorOptions options, std::shared_ptr<Iterator>* out);

  const std::shared_ptr<Database>& Of() const { return database_; }
  const IteratorOptions& Options() const { return options_; }

  // The next read begins at the key closest to `target`, a stored key, in the direction of the walk; a target
  // outside the range is the end.
  void Seek(std::string target);
  // Reads up to `count` entries, and no more once they have `maxBytes`. At least one unless ended or aborted.
  // A failure after some entries is told by the next read.
  uint32_t Read(size_t count, size_t maxBytes, Entries* out);
  // Deletes up to `limit` of the entries ahead, in one batch or, where that would be
  // larger than `maxBatchSize`, in several.
  uint32_t DeleteFrom(Store& store, uint64_t limit, size_t maxBatchSize);
  // Stops the read under way, if any; from any thread.
  void Abort() { aborted_ = true; }
  void Close() { cursor_.reset(); }

 private:
  Iterator(std::shared_ptr<Database> database, IteratorOptions options)
      : Held(kKind), database_(std::move(database)), options_(std::move(options)) {}

  bool IsWithinLower(std::string_view key) const;
  bool IsWithinUpper(std::string_view key) const;
  void SeekNotBefore(std::string_view key);
  void SeekNotAfter(std::string_view key);
  void Begin();
  bool Advance(std::string_view* key, uint32_t* status);

  const std::shared_ptr<Database> database_;
  const IteratorOptions options_;
  std::unique_ptr<Cursor> cursor_;     // null when closed
  std::optional<std::string> target_;  // of a seek that the next read follows
  bool begun_ = false;                 // the cursor stands on the entry that was read last
  uint32_t failure_ = 0;               // for the next read
  std::atomic<bool> aborted_{false};
};

}  // namespace Kestrun::Script
