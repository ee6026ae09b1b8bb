// A process that has two of the host's functions and not the rest, as an interposing tool may bring them.
#include <gtest/gtest.h>

#include "kestrun/version.h"
#include "napi/node_api_abi.h"

namespace {

napi_module* registered = nullptr;
const napi_property_descriptor* defined = nullptr;

}  // namespace

// Visible, so that the library finds them.
#pragma GCC visibility push(default)
extern "C" {

void napi_module_register(napi_module* module) {
  registered = module;
}

napi_status napi_define_properties(napi_env, napi_value, size_t, const napi_property_descriptor* properties) {
  defined = properties;
  return napi_ok;
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

TEST(PartialHost, GetsTheModuleAndANullValueFromAdd) {
  int environment = 0;
  const napi_env env = reinterpret_cast<napi_env>(&environment);

  EXPECT_STRNE(Kestrun::Version(), "");
  ASSERT_NE(registered, nullptr);
  registered->nm_register_func(env, nullptr);
  ASSERT_NE(defined, nullptr);
  EXPECT_EQ(defined->method(env, nullptr), nullptr);
}

}  // namespace
