// scan, del-range.
#include <algorithm>
#include <utility>
#include <vector>

#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

// Lines for people: keys in a column as wide as the first ones need, so that nothing has to
// wait for the last one.
class ScanLines {
 public:
  void Add(std::string key, std::string value) {
    constexpr size_t kLookedAt = 1000;
    if (width_) return Write(key, value);
    waiting_.emplace_back(std::move(key), std::move(value));
    if (waiting_.size() == kLookedAt) Finish();
  }

  void Finish() {
    constexpr size_t kWidest = 40;  // a few very long keys must not push all values out of sight
    size_t width = 0;
    for (const auto& [key, value] : waiting_) {
      if (const size_t own = TextWidth(key); own <= kWidest) width = std::max(width, own);
    }
    width_ = width;
    for (const auto& [key, value] : waiting_) Write(key, value);
    waiting_.clear();
  }

 private:
  void Write(const std::string& key, const std::string& value) {
    text_ = key;
    if (!value.empty()) {
      const size_t own = TextWidth(key);
      if (own < *width_) text_.append(*width_ - own, ' ');
      text_ += "  ";
      text_ += value;
    }
    text_ += '\n';
    WriteData(text_);
  }

  std::vector<std::pair<std::string, std::string>> waiting_;
  std::optional<size_t> width_;
  std::string text_;
};

uint64_t CountKeys(const Snapshot& snapshot, const Range& range) {
  const auto cursor = OpenCursor(snapshot, range);
  Progress progress("counting", 0, "keys");
  uint64_t keys = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) progress.Update(0, ++keys);
  Require(cursor->Status(), "counting the keys");
  return keys;
}

}  // namespace

int RunScan(const Invocation& line) {
  const Range range = RangeOf(line);
  const uint64_t limit = NumberOf(line, "--limit", UINT64_MAX);
  const bool keysOnly = line.Has("--keys-only");
  const bool json = IsJson(line);
  const bool hex = IsHex(line);
  const auto snapshot = OpenSnapshot(line.Store());
  const auto cursor = OpenCursor(*snapshot, range);

  JsonWriter writer(hex);
  ScanLines lines;
  uint64_t written = 0;
  if (limit != 0) cursor->SeekToFirst();
  for (; written < limit && cursor->Valid(); cursor->Next(), ++written) {
    std::string_view value;
    if (!keysOnly) {
      Require(cursor->Value(&value), ShownPath(line.Store()) + ": reading the value of \"" +
                                         Inspect::Printable(cursor->Key()) + "\", after " +
                                         Counted(written, "entry", "entries"));
    }
    if (json) {
      writer.Clear();
      writer.BeginObject().Name("key").Bytes(cursor->Key());
      if (!keysOnly) writer.Name("value").Bytes(value);
      WriteJsonLine(writer.EndObject());
    } else {
      std::string key;
      std::string text;
      AppendShown(hex, cursor->Key(), &key);
      AppendShown(hex, value, &text);
      lines.Add(std::move(key), std::move(text));
    }
  }
  lines.Finish();
  Require(cursor->Status(),
          ShownPath(line.Store()) + ": the entries can be read up to number " + std::to_string(written));
  RequireWholeLog(line.Store(), "entries may be missing, or older than the newest ones");
  return kExitDone;
}

int RunDeleteRange(const Invocation& line) {
  Range range;
  range.from = KeyOf(line, line.positionals[1], "FROM");
  range.to = KeyOf(line, line.positionals[2], "TO");
  if (range.to < range.from) throw UsageError("TO lies before FROM; the bounds are reversed");
  if (line.Has("--dry-run")) {
    const uint64_t keys = CountKeys(*OpenSnapshot(line.Store()), range);
    JsonWriter json;
    if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("wouldDelete").Number(keys).EndObject());
    PrintAccount("would delete " + Counted(keys, "key", "keys"));
    RequireWholeLog(line.Store(), "there may be more");
    return kExitDone;
  }

  const auto store = OpenStore(line, Access::Existing);
  std::unique_ptr<Snapshot> snapshot;
  Require(store->TakeSnapshot(&snapshot), ShownPath(line.Store()) + ": counting the keys");
  const uint64_t keys = CountKeys(*snapshot, range);
  snapshot.reset();
  Confirm("delete " + Counted(keys, "key", "keys") + " of " + ShownPath(line.Store()), "nothing was deleted",
          line.Has("--yes"));
  Require(store->DeleteRange(range), ShownPath(line.Store()) + ": deleting the keys", line.Store());
  JsonWriter json;
  if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("deleted").Number(keys).EndObject());
  PrintAccount("deleted " + Counted(keys, "key", "keys"));
  return kExitDone;
}

}  // namespace Kestrun::Tools
