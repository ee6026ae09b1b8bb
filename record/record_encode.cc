#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "kestrun/record.h"
#include "record/record_format.h"
#include "record/value_conversion.h"

namespace Kestrun {
namespace {

// Whether a Binary field writes anything for `value`. A value of any type counts as Binary with the
// bytes that it refers to.
bool HasBytes(const Value& value) {
  return value.binary != nullptr && value.binarySize != 0;
}

// Writes the bytes of one record from front to back, converting without an allocation.
class Encoder {
 public:
  explicit Encoder(unsigned char* out) : out_(out) {}

  void PutTypeNumber(uint16_t number) { PutBytes(&number, sizeof(number)); }

  void PutNumber(const Value& value, ValueType type) {
    Value converted;
    ConvertToNumber(value, type, &converted);
    // The narrow views are the first bytes of the union.
    PutBytes(&converted.numeric, NumberSize(type));
  }

  void PutText(const Value& value) {
    if (!IsNumber(value.type)) {
      PutSized(value.str.data(), value.str.size());
      return;
    }
    char text[kNumberTextSize];
    const size_t length = WriteNumberText(value, text);
    PutSized(text, length);
  }

  void PutBinary(const Value& value) {
    if (HasBytes(value)) PutSized(value.binary, value.binarySize);
  }

 private:
  void PutSized(const void* bytes, size_t size) {
    const auto length = static_cast<uint32_t>(size);
    PutBytes(&length, sizeof(length));
    PutBytes(bytes, size);
  }

  void PutBytes(const void* bytes, size_t size) {
    if (size != 0) std::memcpy(out_, bytes, size);
    out_ += size;
  }

  unsigned char* out_;
};

uint64_t HeldSize(const Value& value, ValueType type) {
  return kRecordLengthSize + (type == ValueType::String ? value.str.size() : value.binarySize);
}

uint64_t WrittenSize(const Value& value, ValueType type) {
  if (type == ValueType::Binary) return HasBytes(value) ? kRecordLengthSize + uint64_t{value.binarySize} : 0;
  if (!IsNumber(value.type)) return kRecordLengthSize + value.str.size();
  char text[kNumberTextSize];
  return kRecordLengthSize + WriteNumberText(value, text);
}

// What `fields` need, where a String or Binary field counts what `sizeOf` says of its value.
uint64_t MeasureRecord(const std::vector<Field*>& fields, const std::vector<Value>& values,
                       uint64_t (*sizeOf)(const Value&, ValueType)) {
  uint64_t size = kRecordFirstField;
  for (size_t i = 0; i < fields.size(); ++i) {
    const ValueType type = TypeOf(fields[i]);
    if (IsNumber(type)) size += NumberSize(type);
    if (type != ValueType::String && type != ValueType::Binary) continue;

    // Without the value there is no size to go on with. Compat: record-missing-value-aborts
    if (i >= values.size()) std::abort();
    size += sizeOf(values[i], type);
  }
  return size;
}

}  // namespace

unsigned int Record::Capacity() const {
  return static_cast<unsigned int>(MeasureRecord(FieldsOf(meta_), values_, &HeldSize));
}

uint64_t Record::StoredSize() const {
  const std::vector<Field*>& fields = FieldsOf(meta_);
  return std::max(MeasureRecord(fields, values_, &HeldSize), MeasureRecord(fields, values_, &WrittenSize));
}

void Record::Encode(unsigned char* out) {
  if (out == nullptr) return;
  const std::vector<Field*>& fields = FieldsOf(meta_);
  const Value missing{};
  Encoder encoder(out);
  encoder.PutTypeNumber(meta_ == nullptr ? uint16_t{0} : meta_->id);
  for (size_t i = 0; i < fields.size(); ++i) {
    const ValueType type = TypeOf(fields[i]);
    const Value& value = i < values_.size() ? values_[i] : missing;
    if (IsNumber(type)) encoder.PutNumber(value, type);
    if (type == ValueType::String) encoder.PutText(value);
    if (type == ValueType::Binary) encoder.PutBinary(value);
  }
}

}  // namespace Kestrun
