// get, contains, entry.
#include <ctime>

#include "base/clock.h"
#include "inspect/escape.h"
#include "inspect/locate.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/json_writer.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {

int RunGet(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const std::string value = ReadValue(line, key);
  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    WriteJsonLine(json.BeginObject().Name("key").Bytes(key).Name("value").Bytes(value).EndObject());
  } else if (IsHex(line)) {
    WriteLine(Inspect::Hex(value));
  } else {
    WriteData(value);
    if (StandardOutputIsTerminal() && !value.empty() && value.back() != '\n') {
      FlushData();
      PrintAccount("");
    }
  }
  RequireNewest(line);
  return kExitDone;
}

int RunContains(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const auto snapshot = OpenSnapshot(line.Store());
  std::optional<std::string> value;
  Require(snapshot->Get(key, &value), ShownPath(line.Store()) + ": reading the key");
  if (!value) RequireTold(line, key);
  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    WriteJsonLine(
        json.BeginObject().Name("key").Bytes(key).Name("contained").Bool(value.has_value()).EndObject());
  } else {
    WriteLine(value ? "yes" : "no");
  }
  RequireNewest(line);
  return value ? kExitDone : kExitNotFound;
}

// The state is the snapshot's, which looks at all that a store looks at; where the entry lies
// is read from the files.
int RunEntry(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const uint64_t pageSize = PageSizeOf(line).value_or(0);
  const auto snapshot = OpenSnapshot(line.Store());
  std::optional<std::string> value;
  Require(snapshot->Get(key, &value), ShownPath(line.Store()) + ": reading the key");
  const auto place = Inspect::LocateKey(line.Store(), key, pageSize);
  const bool live = value.has_value();
  if (!live) RequireTold(line, key);
  const char* state = live ? "live" : !place ? "missing" : place->deleted ? "deleted" : "expired";

  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    json.BeginObject().Name("key").Bytes(key).Name("state").Text(state);
    if (place) {
      json.Name("file").Text(place->file).Name("valueOffset").Number(place->valueOffset);
      json.Name("valueSize").Number(place->valueSize).Name("timestamp").Number(place->timestamp);
      json.Name("ttl").Number(place->ttl).Name("expires").Number(place->timestamp + place->ttl);
    }
    WriteJsonLine(json.EndObject());
    RequireNewest(line);
    return live ? kExitDone : kExitNotFound;
  }
  if (!place) {
    throw NotFound("key \"" + Inspect::Printable(key) + "\" is not in the store");
  }
  Table table({Align::Left, Align::Left});
  table.Add({"key", Shown(line, key)});
  table.Add({"state", state});
  table.Add({"file", Inspect::Printable(place->file)});
  table.Add({"value offset", std::to_string(place->valueOffset)});
  table.Add({"value size", std::to_string(place->valueSize)});
  table.Add({"written", Inspect::UtcTime(place->timestamp)});
  table.Add({"time to live", TtlText(place->ttl)});
  if (!place->deleted) table.Add({"expires after", Inspect::UtcTime(place->timestamp + place->ttl)});
  table.Write();
  RequireNewest(line);
  return live ? kExitDone : kExitNotFound;
}

}  // namespace Kestrun::Tools
