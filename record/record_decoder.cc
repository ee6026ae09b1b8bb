#include "record/record_decoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "record/record_format.h"

namespace Kestrun {
namespace {

// Reads the bytes of one record from front to back. Bytes after the end are zero, here and wherever a value
// would reach them: they are never read.
class Decoder {
 public:
  Decoder(unsigned char* buffer, uint32_t size, std::vector<Value>* values)
      : buffer_(buffer), size_(size), values_(values) {}

  bool AtEnd() const { return offset_ >= size_; }
  unsigned char* Buffer() const { return buffer_; }

  template <typename Number>
  Number TakeNumber() {
    unsigned char held[sizeof(Number)] = {};
    const uint64_t count = Available(sizeof(Number));
    if (count != 0) std::memcpy(held, buffer_ + offset_, count);
    offset_ += sizeof(Number);
    Number number;
    std::memcpy(&number, held, sizeof(number));
    return number;
  }

  Value TakeText() {
    Value value = Value::StringValue(std::string());
    const auto length = TakeNumber<uint32_t>();
    // The length is held against the whole record, not against what is left of it. One that fails moves the
    // offset past the end all the same, and the decoding is over.
    if (length < size_) {
      const uint64_t count = Available(length);
      value.str.reserve(length);
      if (count != 0) value.str.assign(reinterpret_cast<const char*>(buffer_ + offset_), count);
      value.str.resize(length);
    }
    offset_ += length;
    return value;
  }

  // Leaves the offset on the first of the bytes: the next field is read from there, although the bytes
  // belong to this one. Every stored record is read so.
  void TakeBinary() {
    const auto length = TakeNumber<uint32_t>();
    if (length == 0) return;
    if (offset_ > size_) {
      // The length itself is cut off. What there is of it counts, for bytes that are not there at all.
      GrowBuffer(offset_ + length);
    } else if (length > size_ - offset_) {
      return;
    }
    values_->push_back(Value::BinaryValue(buffer_ + offset_, length));
  }

 private:
  // How many of the next `count` bytes the record has.
  uint64_t Available(uint64_t count) const {
    return AtEnd() ? 0 : std::min<uint64_t>(count, size_ - offset_);
  }

  // Moves the record into a buffer of `capacity` bytes, zero after the record, and the values with it.
  // Happens once at most and last of all, since the offset is past the end by then.
  void GrowBuffer(uint64_t capacity) {
    auto* grown = static_cast<unsigned char*>(std::calloc(1, capacity));
    if (grown == nullptr) throw std::bad_alloc();
    std::memcpy(grown, buffer_, size_);
    for (Value& value : *values_) {
      if (value.type != ValueType::Binary) continue;
      value.binary = grown + (static_cast<const unsigned char*>(value.binary) - buffer_);
    }
    std::free(buffer_);
    buffer_ = grown;
  }

  unsigned char* buffer_;
  uint64_t size_;
  std::vector<Value>* values_;
  uint64_t offset_ = kRecordFirstField;  // 64 bits, so that no length can move it backwards
};

}  // namespace

unsigned char* DecodeRecord(const std::vector<Field*>& fields, unsigned char* buffer, uint32_t size,
                            std::vector<Value>* values) {
  if (buffer == nullptr || size < kRecordSmallestWithValues) return buffer;

  // With the room reserved, nothing can fail any more once the buffer has been exchanged.
  values->reserve(fields.size());
  Decoder decoder(buffer, size, values);
  for (size_t i = 0; i < fields.size() && !decoder.AtEnd(); ++i) {
    switch (TypeOf(fields[i])) {
      case ValueType::Int32:
        values->push_back(Value::Int32Value(decoder.TakeNumber<int32_t>()));
        break;
      case ValueType::Int64:
        values->push_back(Value::Int64Value(decoder.TakeNumber<int64_t>()));
        break;
      case ValueType::Float:
        values->push_back(Value::FloatValue(decoder.TakeNumber<float>()));
        break;
      case ValueType::Double:
        values->push_back(Value::DoubleValue(decoder.TakeNumber<double>()));
        break;
      case ValueType::String:
        values->push_back(decoder.TakeText());
        break;
      case ValueType::Binary:
        decoder.TakeBinary();
        break;
      default:
        break;
    }
  }
  return decoder.Buffer();
}

}  // namespace Kestrun
