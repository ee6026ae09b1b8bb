// The layout that programs compiled against the headers have built in. A number that changes here breaks
// every program until it is compiled again: such a change needs a new major version, and with it a new
// SONAME.
//
// Compiled in C++17 and in C++20, with libstdc++ here and with libc++ by script/lib/musl_check.sh; nothing of
// it runs.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Members are measured whoever may use them. The standard headers are above, so that they stay as they are.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wkeyword-macro"
#endif
#define private public
#include "kestrun/kestrun.h"
#undef private

namespace Kestrun {
namespace {

#if defined(_LIBCPP_VERSION)
constexpr size_t kString = 24;
#else
constexpr size_t kString = 32;
#endif
static_assert(sizeof(std::string) == kString && alignof(std::string) == 8);
static_assert(sizeof(std::vector<Value>) == 24);
static_assert(sizeof(std::shared_ptr<LSDBImpl>) == 16 && sizeof(std::unique_ptr<LSDBImpl>) == 8);

static_assert(sizeof(Key) == 24 && alignof(Key) == 8);
static_assert(offsetof(Key, inline_) == 0 && sizeof(Key::inline_) == 16);
static_assert(offsetof(Key, heap_) == 0);
static_assert(offsetof(Key, length_) == 16 && sizeof(Key::length_) == 2);

static_assert(sizeof(DataEntry) == 32 && alignof(DataEntry) == 8);
static_assert(offsetof(DataEntry, valueOffset) == 0 && sizeof(DataEntry::valueOffset) == 4);
static_assert(offsetof(DataEntry, valueSize) == 4 && sizeof(DataEntry::valueSize) == 4);
static_assert(offsetof(DataEntry, deleted) == 8 && sizeof(DataEntry::deleted) == 1);
static_assert(offsetof(DataEntry, timestamp) == 16 && sizeof(DataEntry::timestamp) == 8);
static_assert(offsetof(DataEntry, ttl) == 24 && sizeof(DataEntry::ttl) == 4);

static_assert(sizeof(ValueType) == 1);
static_assert(sizeof(Value) == 32 + kString && alignof(Value) == 8);
static_assert(offsetof(Value, type) == 0);
static_assert(offsetof(Value, numeric) == 8 && sizeof(Value::numeric) == 8);
static_assert(offsetof(Value, numeric.i32) == 8 && offsetof(Value, numeric.i64) == 8);
static_assert(offsetof(Value, numeric.f32) == 8 && offsetof(Value, numeric.f64) == 8);
static_assert(offsetof(Value, str) == 16);
static_assert(offsetof(Value, binary) == 16 + kString);
static_assert(offsetof(Value, binarySize) == 24 + kString && sizeof(Value::binarySize) == 4);

static_assert(sizeof(Field) == kString + 8);
static_assert(offsetof(Field, name) == 0 && offsetof(Field, type) == kString);

static_assert(sizeof(RecordMeta) == 32 + 2 * kString && alignof(RecordMeta) == 8);
static_assert(offsetof(RecordMeta, id) == 0 && sizeof(RecordMeta::id) == 2);
static_assert(offsetof(RecordMeta, text) == 8);
static_assert(offsetof(RecordMeta, name) == 8 + kString);
static_assert(offsetof(RecordMeta, fields) == 8 + 2 * kString);

static_assert(sizeof(Record) == 40 && alignof(Record) == 8);
static_assert(offsetof(Record, meta_) == 0);
static_assert(offsetof(Record, values_) == 8);
static_assert(offsetof(Record, buffer_) == 32);

static_assert(sizeof(LSDBConfig) == 8 && alignof(LSDBConfig) == 4);
static_assert(offsetof(LSDBConfig, walSize) == 0 && sizeof(LSDBConfig::walSize) == 4);
static_assert(offsetof(LSDBConfig, walOptions) == 4 && sizeof(LSDBConfig::walOptions) == 2);
static_assert(sizeof(SeriesConfig) == 8 && alignof(SeriesConfig) == 4);
static_assert(offsetof(SeriesConfig, walSize) == 0 && sizeof(SeriesConfig::walSize) == 4);
static_assert(offsetof(SeriesConfig, walOptions) == 4 && sizeof(SeriesConfig::walOptions) == 2);

static_assert(sizeof(LSDBImpl) == kString + 24);
static_assert(offsetof(LSDBImpl, path_) == 0);
static_assert(sizeof(Series) == 32);
static_assert(offsetof(Series, schema_) == 0 && offsetof(Series, engine_) == 16);

// No class has a table of virtual functions: none may be derived from, and none is.
static_assert(!std::is_polymorphic_v<Key> && !std::is_polymorphic_v<Value> && !std::is_polymorphic_v<Record>);
static_assert(!std::is_polymorphic_v<RecordMeta> && !std::is_polymorphic_v<LSDBImpl>);
static_assert(!std::is_polymorphic_v<Series>);

// What a caller may put into a container, and what it may pass by value.
static_assert(std::is_copy_constructible_v<Key> && std::is_nothrow_move_constructible_v<Key>);
static_assert(std::is_copy_constructible_v<Value> && std::is_nothrow_move_constructible_v<Value>);
static_assert(std::is_trivially_copyable_v<DataEntry> && std::is_trivially_copyable_v<LSDBConfig>);
static_assert(!std::is_copy_constructible_v<Record> && !std::is_copy_constructible_v<LSDBImpl>);

// The types of the interface.
static_assert(std::is_same_v<decltype(&LSDBImpl::Open),
                             uint32_t (*)(const std::string&, const LSDBConfig&, LSDBImpl**)>);
static_assert(
    std::is_same_v<decltype(&Series::Open), uint32_t (*)(const std::string&, const SeriesConfig&, Series**)>);
static_assert(std::is_same_v<decltype(&LSDBImpl::Get),
                             uint32_t (LSDBImpl::*)(const Key&, const void**, unsigned int*)>);
static_assert(std::is_constructible_v<Record, const RecordMeta*, std::vector<Value>>);
static_assert(std::is_constructible_v<Record, const RecordMeta*, unsigned char*, unsigned int>);

}  // namespace
}  // namespace Kestrun
