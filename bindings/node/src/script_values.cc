#include "script_values.h"

#include <kestrun/status.h>

#include <cctype>
#include <cstring>
#include <optional>
#include <utility>

#include "key_escape.h"

namespace Kestrun::Script {

namespace {

// The code of abstract-level for a status; where it has none, the status's own name in its way of writing:
// KESTRUN_WAL_FULL for kStatusWalFull.
std::string LevelCode(uint32_t status) {
  switch (status) {
    case kStatusBlockCorrupt:
    case kStatusBlockShortRead:
    case kStatusWalChecksum:
    case kStatusManifestChecksum:
    case kStatusManifestUnreadable:
    case kStatusBadMagic:
      return "LEVEL_CORRUPTION";
    case kStatusLockFailed:
      return "LEVEL_LOCKED";
    case kStatusOpenFailed:
    case kStatusWalOpenFailed:
    case kStatusCreateFailed:
    case kStatusSyncFailed:
    case kStatusManifestWriteFailed:
    case kStatusStatFailed:
    case kStatusBlockWriteFailed:
    case kStatusDirectoryFailed:
    case kStatusMapFailed:
    case kStatusTruncateFailed:
    case kStatusSeekFailed:
      return "LEVEL_IO_ERROR";
    default:
      break;
  }
  std::string code = "KESTRUN";
  for (const char* letter = StatusName(status) + std::strlen("kStatus"); *letter != '\0'; ++letter) {
    if (std::isupper(static_cast<unsigned char>(*letter)) != 0) code.push_back('_');
    code.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(*letter))));
  }
  return code;
}

const char* MessageOf(uint32_t status) {
  switch (status) {
    case kStatusStoreMissing:
      return "the store does not exist";
    case kStatusStoreExists:
      return "the store exists already";
    case kStatusWalFull:
      return "what is to be written does not fit into the log; open the store with a larger logSize";
    default:
      return StatusText(status);
  }
}

napi_value TextValue(napi_env env, std::string_view text) {
  napi_value value = nullptr;
  Check(env, napi_create_string_utf8(env, text.data(), text.size(), &value));
  return value;
}

bool IsAscii(std::string_view bytes) {
  constexpr uint64_t kHighBits = 0x8080808080808080;
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= bytes.size(); i += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data() + i, sizeof(word));
    if ((word & kHighBits) != 0) return false;
  }
  for (; i < bytes.size(); ++i) {
    if ((static_cast<unsigned char>(bytes[i]) & 0x80) != 0) return false;
  }
  return true;
}

size_t ElementSize(napi_typedarray_type type) {
  switch (type) {
    case napi_int16_array:
    case napi_uint16_array:
      return 2;
    case napi_int32_array:
    case napi_uint32_array:
    case napi_float32_array:
      return 4;
    case napi_float64_array:
    case napi_bigint64_array:
    case napi_biguint64_array:
      return 8;
    default:
      return 1;
  }
}

std::string CopyBytes(const void* data, size_t size) {
  return size == 0 ? std::string() : std::string(static_cast<const char*>(data), size);
}

std::string TextToBytes(napi_env env, napi_value value) {
  // Most keys are short: one call then does where their length would have to be asked for first. A copy that
  // leaves room for a character, of up to four bytes, is complete.
  char shortText[256];
  size_t size = 0;
  Check(env, napi_get_value_string_utf8(env, value, shortText, sizeof(shortText), &size));
  if (size + 1 + 4 <= sizeof(shortText)) return std::string(shortText, size);

  Check(env, napi_get_value_string_utf8(env, value, nullptr, 0, &size));
  std::string text(size + 1, '\0');
  Check(env, napi_get_value_string_utf8(env, value, text.data(), text.size(), &size));
  text.resize(size);
  return text;
}

// The bytes of a view; nullopt when `value` is none.
std::optional<std::string> ViewToBytes(napi_env env, napi_value value) {
  bool isView = false;
  void* data = nullptr;
  size_t length = 0;
  Check(env, napi_is_typedarray(env, value, &isView));
  if (isView) {
    napi_typedarray_type type = napi_uint8_array;
    Check(env, napi_get_typedarray_info(env, value, &type, &length, &data, nullptr, nullptr));
    return CopyBytes(data, length * ElementSize(type));
  }
  Check(env, napi_is_dataview(env, value, &isView));
  if (isView) {
    Check(env, napi_get_dataview_info(env, value, &length, &data, nullptr, nullptr));
    return CopyBytes(data, length);
  }
  return std::nullopt;
}

void FreeHeld(napi_env, void* data, void*) {
  delete static_cast<std::shared_ptr<Held>*>(data);
}

}  // namespace

void Check(napi_env env, napi_status status) {
  if (status == napi_ok) return;
  bool pending = false;
  if (napi_is_exception_pending(env, &pending) == napi_ok && !pending) {
    const napi_extended_error_info* info = nullptr;
    const char* message = nullptr;
    if (napi_get_last_error_info(env, &info) == napi_ok && info != nullptr) message = info->error_message;
    napi_throw_error(env, nullptr,
                     message != nullptr ? message : "the host refused a call of the native module");
  }
  throw PendingException();
}

void ThrowTypeError(napi_env env, const char* message) {
  napi_throw_type_error(env, "ERR_INVALID_ARG_TYPE", message);
  throw PendingException();
}

void ThrowCodedError(napi_env env, const char* code, const char* message) {
  napi_throw_error(env, code, message);
  throw PendingException();
}

napi_value MakeError(napi_env env, Face face, uint32_t status, std::string_view subject) {
  std::string message;
  if (!subject.empty()) message.append(subject).append(": ");
  message.append(MessageOf(status));

  napi_value error = nullptr;
  const std::string code = face == Face::Level ? LevelCode(status) : StatusName(status);
  Check(env, napi_create_error(env, TextValue(env, code), TextValue(env, message), &error));
  napi_value number = nullptr;
  Check(env, napi_create_uint32(env, status, &number));
  Check(env, napi_set_named_property(env, error, "status", number));
  Check(env, napi_set_named_property(env, error, "statusName", TextValue(env, StatusName(status))));
  return error;
}

void ThrowStatus(napi_env env, const StatusException& exception) {
  try {
    napi_throw(env, MakeError(env, exception.face, exception.status, {}));
  } catch (const PendingException&) {
    // Making the error failed, and that is what script sees.
  } catch (const std::bad_alloc&) {
    napi_throw_error(env, "ERR_MEMORY_ALLOCATION_FAILED", "memory could not be allocated");
  }
}

Arguments::Arguments(napi_env env, napi_callback_info info) : env_(env), values_() {
  size_t count = kMaxCount;
  Check(env, napi_get_cb_info(env, info, &count, values_, nullptr, nullptr));
}

bool Arguments::IsUndefined(size_t index) const {
  return Script::IsUndefined(env_, values_[index]);
}

bool Arguments::Bool(size_t index) const {
  bool value = false;
  Check(env_, napi_get_value_bool(env_, values_[index], &value));
  return value;
}

uint32_t Arguments::Uint32(size_t index) const {
  return ToUint32(env_, values_[index]);
}

Form Arguments::FormAt(size_t index) const {
  return static_cast<Form>(Uint32(index));
}

std::string Arguments::Text(size_t index) const {
  napi_valuetype type = napi_undefined;
  Check(env_, napi_typeof(env_, values_[index], &type));
  if (type != napi_string) ThrowTypeError(env_, "a text is needed");
  return TextToBytes(env_, values_[index]);
}

bool IsUndefined(napi_env env, napi_value value) {
  napi_valuetype type = napi_undefined;
  Check(env, napi_typeof(env, value, &type));
  return type == napi_undefined;
}

uint32_t ToUint32(napi_env env, napi_value value) {
  uint32_t number = 0;
  Check(env, napi_get_value_uint32(env, value, &number));
  return number;
}

std::string ToBytes(napi_env env, napi_value value, const char* what) {
  napi_valuetype type = napi_undefined;
  Check(env, napi_typeof(env, value, &type));
  if (type == napi_string) return TextToBytes(env, value);
  if (type == napi_object) {
    if (std::optional<std::string> bytes = ViewToBytes(env, value)) return *std::move(bytes);
  }
  ThrowTypeError(env, (std::string(what) + " must be a string, a Buffer or a Uint8Array").c_str());
}

std::string ToBound(napi_env env, Face face, napi_value value) {
  std::string key = ToBytes(env, value, "a key");
  return face == Face::Level ? EscapeKey(key) : key;
}

std::string ToStoredKey(napi_env env, Face face, napi_value value) {
  std::string stored = ToBound(env, face, value);
  if (face == Face::Level && stored.size() > kMaxStoredKeySize) {
    ThrowCodedError(env, "LEVEL_INVALID_KEY",
                    "Key is too long: 65535 bytes are allowed, and 65534 when the first is 0, 254 or 255");
  }
  return stored;
}

std::string ToStoredValue(napi_env env, napi_value value) {
  return ToBytes(env, value, "a value");
}

napi_value FromBytes(napi_env env, std::string_view bytes, Form form) {
  napi_value value = nullptr;
  void* data = nullptr;
  switch (form) {
    case Form::Text:
      // Latin-1 needs no decoding, and ASCII is both.
      Check(env, IsAscii(bytes) ? napi_create_string_latin1(env, bytes.data(), bytes.size(), &value)
                                : napi_create_string_utf8(env, bytes.data(), bytes.size(), &value));
      return value;
    case Form::Buffer:
      Check(env, napi_create_buffer_copy(env, bytes.size(), bytes.data(), nullptr, &value));
      return value;
    case Form::View: {
      napi_value memory = nullptr;
      Check(env, napi_create_arraybuffer(env, bytes.size(), &data, &memory));
      if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
      Check(env, napi_create_typedarray(env, napi_uint8_array, bytes.size(), memory, 0, &value));
      return value;
    }
    case Form::None:
      break;
  }
  return Undefined(env);
}

napi_value Undefined(napi_env env) {
  napi_value value = nullptr;
  Check(env, napi_get_undefined(env, &value));
  return value;
}

napi_value FromBool(napi_env env, bool truth) {
  napi_value value = nullptr;
  Check(env, napi_get_boolean(env, truth, &value));
  return value;
}

napi_value HandOut(napi_env env, std::shared_ptr<Held> object) {
  auto holder = std::make_unique<std::shared_ptr<Held>>(std::move(object));
  napi_value value = nullptr;
  Check(env, napi_create_external(env, holder.get(), &FreeHeld, nullptr, &value));
  static_cast<void>(holder.release());  // FreeHeld deletes it
  return value;
}

std::shared_ptr<Held> HeldBy(napi_env env, napi_value value, Held::Kind kind) {
  napi_valuetype type = napi_undefined;
  Check(env, napi_typeof(env, value, &type));
  void* data = nullptr;
  if (type == napi_external) Check(env, napi_get_value_external(env, value, &data));
  const auto* holder = static_cast<std::shared_ptr<Held>*>(data);
  if (holder == nullptr || (*holder)->kind != kind)
    ThrowTypeError(env, "a handle of the native module is needed");
  return *holder;
}

}  // namespace Kestrun::Script
