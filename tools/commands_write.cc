#include "inspect/escape.h"
#include "tools/arguments.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/input.h"
#include "tools/json_bytes.h"
#include "tools/store.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

struct WriteOptions : CommonOptions {
  std::string key;
  std::optional<std::string> value;
};

void WarnOfDroppedKey(const std::string& key) {
  if (!IsDroppedByFlush(key)) return;
  PrintMessage("kestrun: keys that begin with the byte 0xFF stay in the log and are lost when it fills");
}

int Put(const WriteOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const uint32_t ttl = options.Ttl();
  options.WalSize();
  const bool fromInput = !options.value || *options.value == kStandardInput;
  const std::string value = fromInput ? ReadStandardInput(kMaxValue) : *options.value;

  RequireRoom(options, key.Size(), value.size());
  const auto store = OpenStore(options, Access::Create);
  MustSucceed("storing the value",
              [&] { return store->Insert(key, ttl, value.data(), static_cast<uint32_t>(value.size())); });
  WarnOfDroppedKey(options.key);
  if (options.json) {
    WriteJsonLine({{"key", JsonOfBytes(options.key)}, {"valueSize", value.size()}, {"ttl", ttl}});
  }
  return kExitDone;
}

int Delete(const WriteOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const auto store = OpenStore(options, Access::Existing);
  MustSucceed("deleting the key", [&] { return store->Delete(key); });
  if (options.json) WriteJsonLine({{"key", JsonOfBytes(options.key)}, {"deleted", true}});
  return kExitDone;
}

}  // namespace

void AddWriteCommands(const Program& program) {
  const auto put = std::make_shared<WriteOptions>();
  CLI::App* command = AddCommand(program.app, "put", "store a value under a key", put.get(), program.chosen,
                                 [put] { return Put(*put); });
  command->add_option("KEY", put->key, "1 to 65535 bytes")->required();
  command->add_option(kValueName, put->value, "the value; '-' or nothing: standard input");
  AddTtl(command, put.get());
  AddWalSize(command, put.get());

  const auto del = std::make_shared<WriteOptions>();
  command = AddCommand(program.app, "del", "delete a key, whether or not it is there", del.get(),
                       program.chosen, [del] { return Delete(*del); });
  command->add_option("KEY", del->key, "1 to 65535 bytes")->required();
  AddWalSize(command, del.get());
}

}  // namespace Kestrun::Tools
