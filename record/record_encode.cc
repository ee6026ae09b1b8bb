#include <cstdlib>
#include <cstring>

#include "kestrun/record.h"
#include "record/record_format.h"
#include "record/value_conversion.h"

namespace Kestrun {
namespace {

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

  // A value of any type counts as Binary with the bytes that it refers to.
  void PutBinary(const Value& value) {
    if (value.binary != nullptr && value.binarySize != 0) PutSized(value.binary, value.binarySize);
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

size_t HeldTextLength(const Value& value) {
  return value.str.size();
}

size_t ConvertedTextLength(const Value& value) {
  if (!IsNumber(value.type)) return value.str.size();
  char text[kNumberTextSize];
  return WriteNumberText(value, text);
}

// What `fields` need, where a String field counts what `textLength` says of its value.
uint64_t MeasureRecord(const std::vector<Field*>& fields, const std::vector<Value>& values,
                       size_t (*textLength)(const Value&)) {
  uint64_t size = kRecordFirstField;
  for (size_t i = 0; i < fields.size(); ++i) {
    const ValueType type = TypeOf(fields[i]);
    if (IsNumber(type)) size += NumberSize(type);
    if (type != ValueType::String && type != ValueType::Binary) continue;

    // Without the value there is no size to go on with; callers rely on the process ending here.
    if (i >= values.size()) std::abort();
    size += kRecordLengthSize;
    size += type == ValueType::String ? textLength(values[i]) : values[i].binarySize;
  }
  return size;
}

}  // namespace

unsigned int Record::Capacity() const {
  return static_cast<unsigned int>(MeasureRecord(FieldsOf(meta_), values_, &HeldTextLength));
}

uint64_t Record::MaxEncodedSize() const {
  return MeasureRecord(FieldsOf(meta_), values_, &ConvertedTextLength);
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
