#include <ctime>

#include "inspect/escape.h"
#include "inspect/locate.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/json_bytes.h"
#include "tools/store.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

struct ReadOptions : CommonOptions {
  std::string key;
  bool hex = false;
};

const char* StateName(EntryState state) {
  switch (state) {
    case EntryState::Missing:
      return "missing";
    case EntryState::Deleted:
      return "deleted";
    case EntryState::Expired:
      return "expired";
    case EntryState::Live:
      break;
  }
  return "live";
}

void SayNotFound(const ReadOptions& options, EntryState state) {
  const std::string key = "kestrun: key \"" + Inspect::Printable(options.key) + "\" ";
  PrintMessage(
      key + (state == EntryState::Missing ? "is not in the store" : std::string("is ") + StateName(state)));
}

int Get(const ReadOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const auto store = OpenStore(options, Access::Existing);
  StoredValue value;
  const EntryState state = ReadValue(*store, key, &value);
  if (state != EntryState::Live) {
    SayNotFound(options, state);
    return kExitNotFound;
  }
  if (options.json) {
    WriteJsonLine({{"key", JsonOfBytes(options.key)}, {"value", JsonOfBytes(value.Bytes())}});
  } else if (options.hex) {
    WriteLine(Inspect::Hex(value.Bytes()));
  } else {
    WriteData(value.Bytes());
  }
  return kExitDone;
}

int Contains(const ReadOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const auto store = OpenStore(options, Access::Existing);
  DataEntry entry;
  const bool contained = FindEntry(*store, key, &entry) == EntryState::Live;
  if (options.json) {
    WriteJsonLine({{"key", JsonOfBytes(options.key)}, {"contained", contained}});
  } else {
    WriteLine(contained ? "yes" : "no");
  }
  return contained ? kExitDone : kExitNotFound;
}

// What the store tells of a key, and the file that holds it. The two are asked one after the other: of an
// entry that moves meanwhile the file is not told.
int Entry(const ReadOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const uint64_t pageSize = options.PageSize();
  const auto store = OpenStore(options, Access::Existing);
  DataEntry entry;
  EntryState state = FindEntry(*store, key, &entry);
  const auto place = Inspect::LocateKey(options.store, pageSize, options.key);
  if (state == EntryState::Missing && place && place->deleted) {
    state = EntryState::Deleted;
    entry = {place->valueOffset, place->valueSize, true, place->timestamp, place->ttl};
  }
  const bool sameEntry =
      place && place->valueOffset == entry.valueOffset && place->timestamp == entry.timestamp;
  const int exitStatus = state == EntryState::Live ? kExitDone : kExitNotFound;

  Json json = {{"key", JsonOfBytes(options.key)}, {"state", StateName(state)}};
  if (state == EntryState::Missing) {
    if (options.json) WriteJsonLine(json);
    SayNotFound(options, state);
    return exitStatus;
  }
  const uint64_t expires = entry.timestamp + entry.ttl;
  if (options.json) {
    if (sameEntry) json["file"] = JsonOfBytes(place->file);
    json["valueOffset"] = entry.valueOffset;
    json["valueSize"] = entry.valueSize;
    json["timestamp"] = entry.timestamp;
    json["ttl"] = entry.ttl;
    json["expires"] = expires;
    WriteJsonLine(json);
    return exitStatus;
  }
  Table table({Align::Left, Align::Left});
  table.Add({"key", Inspect::Printable(options.key)});
  table.Add({"state", StateName(state)});
  if (sameEntry) table.Add({"file", Inspect::Printable(place->file)});
  table.Add({"value offset", std::to_string(entry.valueOffset)});
  table.Add({"value size", std::to_string(entry.valueSize)});
  table.Add({"written", Inspect::UtcTime(entry.timestamp)});
  table.Add({"time to live", std::to_string(entry.ttl) + " s"});
  table.Add({"expires after", Inspect::UtcTime(expires)});
  table.Write();
  return exitStatus;
}

}  // namespace

void AddReadCommands(const Program& program) {
  const auto get = std::make_shared<ReadOptions>();
  CLI::App* command = AddCommand(program.app, "get", "write the bytes of a value", get.get(), program.chosen,
                                 [get] { return Get(*get); });
  command->add_option("KEY", get->key, "1 to 65535 bytes")->required();
  command->add_flag("--hex", get->hex, "write the bytes in hexadecimal");
  AddWalSize(command, get.get());

  const auto contains = std::make_shared<ReadOptions>();
  command = AddCommand(program.app, "contains", "tell whether a key is stored and alive", contains.get(),
                       program.chosen, [contains] { return Contains(*contains); });
  command->add_option("KEY", contains->key, "1 to 65535 bytes")->required();
  AddWalSize(command, contains.get());

  const auto entry = std::make_shared<ReadOptions>();
  command = AddCommand(program.app, "entry", "tell where a key is stored, since when and for how long",
                       entry.get(), program.chosen, [entry] { return Entry(*entry); });
  command->add_option("KEY", entry->key, "1 to 65535 bytes")->required();
  AddWalSize(command, entry.get());
  AddPageSize(command, entry.get());
}

}  // namespace Kestrun::Tools
