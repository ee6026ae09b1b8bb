#include "inspect/escape.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/json_bytes.h"
#include "tools/key_range.h"
#include "tools/store.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

struct RangeOptions : CommonOptions {
  std::optional<std::string> from;
  std::optional<std::string> to;
  std::string prefix;
  std::optional<std::string> limit;
  bool keysOnly = false;
};

std::string BytesOf(const Key& key) {
  return std::string(reinterpret_cast<const char*>(key.Data()), key.Size());
}

KeyRange RangeOf(const RangeOptions& options) {
  KeyRange range;
  // An empty lower bound is the beginning; an empty upper one would leave nothing and is a slip.
  if (options.from && !options.from->empty()) range.from = ParseKey(*options.from, "--from");
  if (options.to) range.to = ParseKey(*options.to, "--to");
  if (!options.prefix.empty()) range.prefix = BytesOf(ParseKey(options.prefix, "--prefix"));
  return range;
}

// How wide the keys are on the screen; a few very long ones must not push all values out of sight.
size_t KeyColumnWidth(const std::vector<Key>& keys) {
  constexpr size_t kWidest = 40;
  size_t width = 0;
  for (const Key& key : keys) {
    const size_t own = TextWidth(Inspect::Printable(BytesOf(key)));
    if (own <= kWidest) width = std::max(width, own);
  }
  return width;
}

void WriteEntry(const RangeOptions& options, const Key& key, const StoredValue& value, size_t keyWidth) {
  const std::string keyBytes = BytesOf(key);
  if (options.json) {
    Json json = {{"key", JsonOfBytes(keyBytes)}};
    if (!options.keysOnly) json["value"] = JsonOfBytes(value.Bytes());
    WriteJsonLine(json);
    return;
  }
  std::string line = Inspect::Printable(keyBytes);
  if (!options.keysOnly && !value.Bytes().empty()) {
    const size_t width = TextWidth(line);
    if (width < keyWidth) line.append(keyWidth - width, ' ');
    line += "  " + Inspect::Printable(value.Bytes());
  }
  WriteLine(line);
}

int Scan(const RangeOptions& options) {
  constexpr uint64_t kNoLimit = UINT64_MAX;
  const KeyRange range = RangeOf(options);
  const std::optional<uint64_t> limit = options.limit ? ParseNumber(*options.limit, kNoLimit) : kNoLimit;
  if (!limit) throw UsageError("--limit takes a number of entries, not \"" + *options.limit + "\"");
  const auto store = OpenStore(options, Access::Existing);
  if (*limit == 0) return kExitDone;

  const std::vector<Key> keys = ListKeys(*store, range);
  const size_t keyWidth = options.json || options.keysOnly ? 0 : KeyColumnWidth(keys);
  uint64_t written = 0;
  for (const Key& key : keys) {
    StoredValue value;
    DataEntry entry;
    const EntryState state =
        options.keysOnly ? FindEntry(*store, key, &entry) : ReadValue(*store, key, &value);
    if (state != EntryState::Live) continue;
    WriteEntry(options, key, value, keyWidth);
    if (++written == *limit) break;
  }
  return kExitDone;
}

// Key by key and not by DeleteByRange, which tells neither how many keys there were nor what failed, and
// which between bounds of one primary leaves out keys (ListKeys).
int DeleteRange(const RangeOptions& options) {
  KeyRange range;
  range.from = ParseKey(*options.from, "FROM");
  range.to = ParseKey(*options.to, "TO");
  const auto store = OpenStore(options, Access::Existing);
  uint64_t deleted = 0;
  for (const Key& key : ListKeys(*store, range)) {
    DataEntry entry;
    const EntryState state = FindEntry(*store, key, &entry);
    if (state == EntryState::Missing || state == EntryState::Deleted) continue;
    MustSucceed("deleting a key, after " + std::to_string(deleted) + " others",
                [&] { return store->Delete(key); });
    ++deleted;
  }
  if (options.json) {
    WriteJsonLine({{"deleted", deleted}});
  } else {
    WriteLine("deleted " + std::to_string(deleted) + (deleted == 1 ? " key" : " keys"));
  }
  return kExitDone;
}

}  // namespace

void AddRangeCommands(const Program& program) {
  const auto scan = std::make_shared<RangeOptions>();
  CLI::App* command = AddCommand(program.app, "scan", "list the live entries, sorted by key", scan.get(),
                                 program.chosen, [scan] { return Scan(*scan); });
  command->add_option("--from", scan->from, "the first key to list");
  command->add_option("--to", scan->to, "the first key not to list any more");
  command->add_option("--prefix", scan->prefix, "what the keys begin with");
  command->add_option("--limit", scan->limit, "how many entries to list at most");
  command->add_flag("--keys-only", scan->keysOnly, "leave out the values");
  AddWalSize(command, scan.get());

  const auto del = std::make_shared<RangeOptions>();
  command = AddCommand(program.app, "del-range", "delete the keys from FROM up to and not including TO",
                       del.get(), program.chosen, [del] { return DeleteRange(*del); });
  command->add_option("FROM", del->from, "the first key to delete")->required();
  command->add_option("TO", del->to, "the first key to keep")->required();
  AddWalSize(command, del.get());
}

}  // namespace Kestrun::Tools
