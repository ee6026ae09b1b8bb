// bindings/node/src/script_values.h: values of script as C++ values and back, and errors.
//
// Ownership: everything is copied.
// Threads:   the thread of the environment only.
// Failure:   C++ exceptions, which Guarded turns into exceptions of script.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "node_api_host.h"

namespace Kestrun::Script {

// How a store is seen from script: as an abstract-level database, with its keys (key_escape.h) and error
// codes, or plainly, with the store's own keys and the names of its statuses as error codes.
enum class Face { Level, Plain };

// In what form bytes go to script.
enum class Form : uint32_t { None = 0, Text = 1, Buffer = 2, View = 3 };

// An exception of script is pending: whoever called from script will see it.
struct PendingException {};
// A status that becomes an exception of script.
struct StatusException {
  Face face;
  uint32_t status;
};

// Ends the native function unless `status` is napi_ok.
void Check(napi_env env, napi_status status);
[[noreturn]] void ThrowTypeError(napi_env env, const char* message);
// With a code, such as LEVEL_INVALID_KEY.
[[noreturn]] void ThrowCodedError(napi_env env, const char* code, const char* message);

// An Error for `status`. `subject` goes before the message; empty for none.
napi_value MakeError(napi_env env, Face face, uint32_t status, std::string_view subject);

// What a native function was called with; missing arguments are undefined.
class Arguments {
 public:
  static constexpr size_t kMaxCount = 9;

  Arguments(napi_env env, napi_callback_info info);

  napi_value operator[](size_t index) const { return values_[index]; }
  bool IsUndefined(size_t index) const;
  bool Bool(size_t index) const;
  uint32_t Uint32(size_t index) const;
  Form FormAt(size_t index) const;
  std::string Text(size_t index) const;

 private:
  napi_env env_;
  napi_value values_[kMaxCount];
};

bool IsUndefined(napi_env env, napi_value value);
uint32_t ToUint32(napi_env env, napi_value value);

// The bytes of a string, in UTF-8, or of a typed array or DataView; a TypeError for anything else.
std::string ToBytes(napi_env env, napi_value value, const char* what);
// What a key of script is stored as. LEVEL_INVALID_KEY when it is too long for that;
// with Face::Plain the store judges.
std::string ToStoredKey(napi_env env, Face face, napi_value value);
// As ToStoredKey, but of any length.
std::string ToBound(napi_env env, Face face, napi_value value);
std::string ToStoredValue(napi_env env, napi_value value);

napi_value FromBytes(napi_env env, std::string_view bytes, Form form);
napi_value Undefined(napi_env env);
napi_value FromBool(napi_env env, bool value);

// Gives the handles that were made while it exists back when it ends, by an exception too.
class HandleScope {
 public:
  explicit HandleScope(napi_env env) : env_(env) { Check(env, napi_open_handle_scope(env, &scope_)); }
  ~HandleScope() { napi_close_handle_scope(env_, scope_); }
  HandleScope(const HandleScope&) = delete;
  HandleScope& operator=(const HandleScope&) = delete;

 private:
  napi_env env_;
  napi_handle_scope scope_ = nullptr;
};

// A native function that may throw.
using NativeFunction = napi_value (*)(napi_env env, const Arguments& arguments);
void ThrowStatus(napi_env env, const StatusException& exception);

// `function` as a callback of the host.
template <NativeFunction function>
napi_value Guarded(napi_env env, napi_callback_info info) noexcept {
  try {
    return function(env, Arguments(env, info));
  } catch (const PendingException&) {
  } catch (const StatusException& exception) {
    ThrowStatus(env, exception);
  } catch (const std::bad_alloc&) {
    napi_throw_error(env, "ERR_MEMORY_ALLOCATION_FAILED", "memory could not be allocated");
  }
  return nullptr;
}

// Objects of ours that script holds. Each has a kind, because script can't tell the objects
// of one kind from another.
struct Held {
  enum class Kind { Database, Snapshot, Iterator };
  explicit Held(Kind kindOfThis) : kind(kindOfThis) {}
  virtual ~Held() = default;
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  const Kind kind;
};

// Hands `object` to script, which shares it until it is collected.
napi_value HandOut(napi_env env, std::shared_ptr<Held> object);
std::shared_ptr<Held> HeldBy(napi_env env, napi_value value, Held::Kind kind);

template <typename T>
std::shared_ptr<T> HeldBy(napi_env env, napi_value value) {
  return std::static_pointer_cast<T>(HeldBy(env, value, T::kKind));
}

}  // namespace Kestrun::Script
