// napi/host_module.cc: presents the library to a Node-API host as the module "kestrun", which exports add.
//
// The stores are not reachable from script: the module shows a script that the library is loaded and answers.
// The host's functions are weak references, so that the same library serves programs without a host.
#include <cstddef>

#include "napi/node_api_abi.h"

namespace {

constexpr size_t kOperandCount = 2;

// The sum of the first two arguments as doubles. An argument that is missing or not a number counts as 0: a
// host leaves the variable alone where there is no number to read. Nothing is thrown and no status is looked
// at, so that every call has a result.
napi_value Add(napi_env env, napi_callback_info info) {
  if (napi_get_cb_info == nullptr || napi_typeof == nullptr || napi_get_value_double == nullptr ||
      napi_create_double == nullptr) {
    return nullptr;
  }

  size_t count = kOperandCount;
  napi_value arguments[kOperandCount] = {nullptr, nullptr};
  napi_get_cb_info(env, info, &count, arguments, nullptr, nullptr);

  // The types are asked for and not judged: whatever is not a number is left to the reading below.
  napi_valuetype types[kOperandCount] = {napi_undefined, napi_undefined};
  for (size_t i = 0; i < kOperandCount; ++i) napi_typeof(env, arguments[i], &types[i]);

  double operands[kOperandCount] = {0.0, 0.0};
  for (size_t i = 0; i < kOperandCount; ++i) napi_get_value_double(env, arguments[i], &operands[i]);

  napi_value sum = nullptr;
  napi_create_double(env, operands[0] + operands[1], &sum);
  return sum;
}

napi_value FillExports(napi_env env, napi_value exports) {
  if (napi_define_properties == nullptr) return exports;

  static const napi_property_descriptor properties[] = {
      {"add", nullptr, &Add, nullptr, nullptr, nullptr, napi_default, nullptr},
  };
  napi_define_properties(env, exports, sizeof(properties) / sizeof(properties[0]), properties);
  return exports;
}

// Not const: the host owns the descriptor's reserved words once it is registered.
napi_module hostModule = {
    1, 0, nullptr, &FillExports, "kestrun", nullptr, {nullptr, nullptr, nullptr, nullptr}};

// Runs when the library is loaded.
__attribute__((constructor)) void RegisterHostModule() {
  if (napi_module_register != nullptr) napi_module_register(&hostModule);
}

}  // namespace
