// A stored record: the first line of the input is the text of its type, the rest are its bytes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/record.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using Kestrun::Record;
using Kestrun::RecordMeta;
using Kestrun::Value;
using Kestrun::ValueType;
using Kestrun::Testing::FuzzCheck;

// In an allocation of exactly that size, so that the sanitizer sees every step outside.
unsigned char* MallocCopy(const void* bytes, size_t size) {
  auto* copy = static_cast<unsigned char*>(std::malloc(size == 0 ? 1 : size));
  if (size != 0) std::memcpy(copy, bytes, size);
  return copy;
}

std::vector<Value> ValuesOf(const Record& record, const RecordMeta& meta) {
  std::vector<Value> values;
  for (;;) {
    Value value = record.GetValue(static_cast<unsigned int>(values.size()));
    if (value.type == ValueType::None) break;
    if (value.type == ValueType::Binary) {
      FuzzCheck(value.binary != nullptr && value.binarySize != 0, "a Binary has bytes");
      const auto* bytes = static_cast<const volatile unsigned char*>(value.binary);
      static_cast<void>(bytes[0]);
      static_cast<void>(bytes[value.binarySize - 1]);
    }
    values.push_back(std::move(value));
  }
  FuzzCheck(values.size() <= meta.fields.size(), "no more values than fields");
  for (const Kestrun::Field* field : meta.fields) record.GetValue(field->name);
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t* const lineEnd = std::find(data, data + size, '\n');
  const std::string text(data, lineEnd);
  const std::unique_ptr<RecordMeta> meta(RecordMeta::Create(1, text));
  if (meta == nullptr || lineEnd == data + size) return 0;
  const auto length = static_cast<size_t>(data + size - (lineEnd + 1));
  const Record record(meta.get(), MallocCopy(lineEnd + 1, length), static_cast<unsigned int>(length));
  std::vector<Value> values = ValuesOf(record, *meta);

  // The values, wherever they ended up, are written again; what is written can be read.
  values.resize(meta->fields.size());
  for (size_t i = 0; i < values.size(); ++i) {
    if (meta->fields[i]->type == ValueType::String) values[i].ConvertTo(ValueType::String);
  }
  Record again(meta.get(), std::move(values));
  const unsigned int capacity = again.Capacity();
  if (capacity > (1U << 26)) return 0;
  auto* encoded = static_cast<unsigned char*>(std::calloc(1, capacity));
  again.Encode(encoded);
  FuzzCheck(encoded[0] == 1 && encoded[1] == 0, "the type's number leads the record");
  const Record decoded(meta.get(), encoded, capacity);
  ValuesOf(decoded, *meta);
  return 0;
}
