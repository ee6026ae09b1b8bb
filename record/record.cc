#include "kestrun/record.h"

#include <cstdlib>
#include <type_traits>
#include <utility>

#include "record/record_decoder.h"
#include "record/record_format.h"

namespace Kestrun {
namespace {

// Where va_list is a pointer, `Record(meta, {})` passes a null one.
template <typename Arguments>
bool IsNullPointer([[maybe_unused]] const Arguments& args) {
  if constexpr (std::is_pointer_v<Arguments>) {
    return args == nullptr;
  } else {
    return false;
  }
}

}  // namespace

const std::vector<Field*>& FieldsOf(const RecordMeta* meta) {
  static const std::vector<Field*> none;
  return meta == nullptr ? none : meta->fields;
}

Record::Record(const RecordMeta* meta, va_list args) : meta_(meta), buffer_(nullptr) {
  if (IsNullPointer(args)) return;
  const std::vector<Field*>& fields = FieldsOf(meta_);
  values_.reserve(fields.size());
  for (const Field* field : fields) {
    switch (TypeOf(field)) {
      case ValueType::Int32:
        values_.push_back(Value::Int32Value(va_arg(args, int)));
        break;
      case ValueType::Int64:
        values_.push_back(Value::Int64Value(va_arg(args, long)));
        break;
      case ValueType::Float:
        values_.push_back(Value::FloatValue(static_cast<float>(va_arg(args, double))));
        break;
      case ValueType::Double:
        values_.push_back(Value::DoubleValue(va_arg(args, double)));
        break;
      case ValueType::String: {
        const char* text = va_arg(args, const char*);
        values_.push_back(Value::StringValue(text == nullptr ? "" : text));
        break;
      }
      default:
        break;  // no argument and no value: what follows moves up one place. Compat: binary-takes-no-argument
    }
  }
}

Record::Record(const RecordMeta* meta, std::vector<Value> values)
    : meta_(meta), values_(std::move(values)), buffer_(nullptr) {}

Record::Record(const RecordMeta* meta, unsigned char* buffer, unsigned int size)
    : meta_(meta), buffer_(nullptr) {
  buffer_ = DecodeRecord(FieldsOf(meta_), buffer, size, &values_);
}

Record::~Record() {
  std::free(buffer_);
}

Value Record::GetValue(unsigned int index) const {
  return index < values_.size() ? values_[index] : Value();
}

Value Record::GetValue(const std::string& name) const {
  const std::vector<Field*>& fields = FieldsOf(meta_);
  for (size_t i = 0; i < fields.size(); ++i) {
    if (fields[i] == nullptr || fields[i]->name != name) continue;
    return i < values_.size() ? values_[i] : Value();
  }
  return Value();
}

}  // namespace Kestrun
