// put, del.
#include "inspect/escape.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/input.h"
#include "tools/json_writer.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

// VALUE, or standard input where it is '-' or absent.
std::string ValueOf(const Invocation& line) {
  const bool given = line.positionals.size() > 2 && line.positionals[2] != kStandardInput;
  if (given) return BytesOf(line, line.positionals[2], "VALUE");
  std::string bytes = ReadStandardInput(kMaxValue);
  if (!IsHex(line)) return bytes;
  while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r')) bytes.pop_back();
  const auto decoded = BytesOfHex(bytes);
  if (!decoded) throw InputError("standard input holds no hexadecimal digits, which --hex asks for");
  return *decoded;
}

}  // namespace

int RunPut(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const uint32_t ttl = TtlOf(line);
  LogSizeOf(line);
  const std::string value = ValueOf(line);

  RequireRoom(line, key.size(), value.size());
  const auto store = OpenStore(line, Access::Create);
  Require(store->Put(key, value, ttl), ShownPath(line.Store()) + ": storing the value", line.Store());
  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    json.BeginObject().Name("key").Bytes(key).Name("valueSize").Number(value.size()).Name("ttl").Number(ttl);
    WriteJsonLine(json.EndObject());
  }
  PrintDetail("kestrun put: stored " + Counted(value.size(), "byte", "bytes") + " under \"" +
              Inspect::Printable(key) + "\", time to live " + TtlText(ttl));
  return kExitDone;
}

int RunDelete(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const auto store = OpenStore(line, Access::Existing);
  Require(store->Delete(key), ShownPath(line.Store()) + ": deleting the key", line.Store());
  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    WriteJsonLine(json.BeginObject().Name("key").Bytes(key).Name("deleted").Bool(true).EndObject());
  }
  return kExitDone;
}

}  // namespace Kestrun::Tools
