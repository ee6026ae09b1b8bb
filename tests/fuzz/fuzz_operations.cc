#include "tests/fuzz/fuzz_operations.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "kestrun/status.h"
#include "tests/fuzz/fuzz_check.h"

namespace Kestrun::Fuzzing {
namespace {

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr int kMaxOperations = 12;

void CheckGet(LSDBImpl& engine, const Key& key, const std::string* expected) {
  const void* value = nullptr;
  unsigned size = 0;
  const uint32_t status = engine.Get(key, &value, &size);
  const std::unique_ptr<void, decltype(&std::free)> owner(const_cast<void*>(value), &std::free);
  // Every byte of what was handed out can be read.
  const std::string found =
      value == nullptr ? std::string() : std::string(static_cast<const char*>(value), size);
  if (expected == nullptr) return;
  Testing::FuzzCheck(status == kStatusOk, "reading back what was inserted");
  Testing::FuzzCheck(found == *expected, "finding what was inserted");
}

std::vector<Key> Keys(LSDBImpl& engine, const Key& from, const Key& to) {
  std::vector<Key> keys;
  engine.EnumerateKeys(from, to, [&keys](const Key& key) {
    keys.push_back(key);
    return keys.size() >= 64;
  });
  return keys;
}

// A key of the store, or one of a few others.
Key AnyKey(Input& input, const std::vector<Key>& keys) {
  static const char* const kOthers[] = {"a", "b-1", "b-2", "b", "a-key-of-more-than-fifteen-bytes", "zz"};
  const uint8_t choice = input.Byte();
  if (choice < 0xC0 && !keys.empty()) return keys[choice % keys.size()];
  return Key(kOthers[choice % 6]);
}

void Step(LSDBImpl& engine, Input& input, const std::vector<Key>& keys) {
  const uint8_t kind = input.Byte();
  const Key key = AnyKey(input, keys);
  DataEntry entry = {};
  switch (kind % 9) {
    case 0: {
      const std::string value(1 + input.Byte(), 'v');
      const uint32_t status = engine.Insert(key, kForEver, value.data(), static_cast<unsigned>(value.size()));
      const bool flushed = key.Size() != 0 && key.Data()[0] != 0xFF;
      if (status == kStatusOk && flushed) CheckGet(engine, key, &value);
      break;
    }
    case 1:
      CheckGet(engine, key, nullptr);
      break;
    case 2: {
      const uint32_t status = engine.Delete(key);
      if (status == kStatusOk) Testing::FuzzCheck(!engine.Contains(key), "a deleted key is gone");
      break;
    }
    case 3:
      engine.Contains(key);
      engine.GetDataEntry(key, entry);
      break;
    case 4:
      engine.ResetWal();
      break;
    case 5:
      engine.ForceCompact();
      break;
    case 6:
      engine.DeleteByRange(key, AnyKey(input, keys));
      break;
    case 7:
      Keys(engine, key, AnyKey(input, keys));
      break;
    default:
      for (const Key& each : keys) CheckGet(engine, each, nullptr);
      break;
  }
}

}  // namespace

void RunOperations(const std::string& path, Input& input) {
  LSDBImpl* opened = nullptr;
  if (LSDBImpl::Open(path, {kFuzzWalSize, 0}, &opened) != kStatusOk) return;
  const std::unique_ptr<LSDBImpl> engine(opened);
  const std::vector<Key> keys = Keys(*engine, Key::MinKey(), Key("\xFF\xFF"));
  for (int i = 0; i < kMaxOperations && !input.IsEmpty(); ++i) Step(*engine, input, keys);
  for (const Key& key : keys) CheckGet(*engine, key, nullptr);
}

}  // namespace Kestrun::Fuzzing
