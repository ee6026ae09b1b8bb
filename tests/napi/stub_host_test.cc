// This program is a Node-API host itself: it defines the six functions that the library looks for, writes
// down every call and answers from a table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestrun/version.h"
#include "napi/node_api_abi.h"

namespace {

// The library's constructor runs before this program's, so the registrations are kept in plain memory.
constexpr int kMaxRegistrations = 8;
int registrationCount = 0;
napi_module* registrations[kMaxRegistrations];

// A value of this host: an address in the table of arguments, or the last number that was created.
struct HostValue {
  bool isNumber;
  double number;
};

struct Host {
  std::vector<HostValue> arguments;
  bool failEverything = false;

  std::vector<std::string> calls;
  std::vector<napi_property_descriptor> properties;
  napi_value definedOn = nullptr;
  bool slotsWereNull = false;
  size_t askedFor = 0;
  bool askedForReceiverOrData = false;
  HostValue created = {false, 0};
  HostValue undefined = {false, 0};
};
Host host;

napi_env const kEnvironment = reinterpret_cast<napi_env>(&host);
napi_callback_info const kCallbackInfo = reinterpret_cast<napi_callback_info>(&host.arguments);

napi_value Handle(HostValue* value) {
  return reinterpret_cast<napi_value>(value);
}
napi_status Answer() {
  return host.failEverything ? static_cast<napi_status>(9) : napi_ok;
}

}  // namespace

// Visible, so that the library finds them.
#pragma GCC visibility push(default)
extern "C" {

void napi_module_register(napi_module* module) {
  if (registrationCount < kMaxRegistrations) registrations[registrationCount] = module;
  ++registrationCount;
}

napi_status napi_define_properties(napi_env env, napi_value object, size_t count,
                                   const napi_property_descriptor* properties) {
  EXPECT_EQ(env, kEnvironment);
  host.calls.emplace_back("define_properties");
  host.definedOn = object;
  host.properties.assign(properties, properties + count);
  return Answer();
}

napi_status napi_get_cb_info(napi_env env, napi_callback_info info, size_t* argc, napi_value* argv,
                             napi_value* receiver, void** data) {
  EXPECT_EQ(env, kEnvironment);
  EXPECT_EQ(info, kCallbackInfo);
  host.calls.emplace_back("get_cb_info");
  host.askedFor = *argc;
  host.askedForReceiverOrData = receiver != nullptr || data != nullptr;
  host.slotsWereNull = argv[0] == nullptr && argv[1] == nullptr;
  if (host.failEverything) return Answer();

  for (size_t i = 0; i < *argc; ++i) {
    argv[i] = Handle(i < host.arguments.size() ? &host.arguments[i] : &host.undefined);
  }
  *argc = host.arguments.size();
  return napi_ok;
}

napi_status napi_typeof(napi_env env, napi_value value, napi_valuetype* type) {
  EXPECT_EQ(env, kEnvironment);
  host.calls.emplace_back("typeof");
  if (host.failEverything || value == nullptr) return static_cast<napi_status>(1);
  const bool isNumber = reinterpret_cast<HostValue*>(value)->isNumber;
  *type = static_cast<napi_valuetype>(isNumber ? 3 : 0);
  return napi_ok;
}

napi_status napi_get_value_double(napi_env env, napi_value value, double* number) {
  EXPECT_EQ(env, kEnvironment);
  host.calls.emplace_back("get_value_double");
  if (host.failEverything || value == nullptr) return static_cast<napi_status>(1);
  if (!reinterpret_cast<HostValue*>(value)->isNumber) return static_cast<napi_status>(6);
  *number = reinterpret_cast<HostValue*>(value)->number;
  return napi_ok;
}

napi_status napi_create_double(napi_env env, double number, napi_value* value) {
  EXPECT_EQ(env, kEnvironment);
  host.calls.emplace_back("create_double");
  host.created = {true, number};
  if (host.failEverything) return Answer();
  *value = Handle(&host.created);
  return napi_ok;
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

class StubHostTest : public testing::Test {
 protected:
  void SetUp() override {
    host = Host();
    ASSERT_EQ(registrationCount, 1);
  }

  napi_callback AddFunction() {
    registrations[0]->nm_register_func(kEnvironment, Handle(&exports_));
    return host.properties.at(0).method;
  }

  napi_value Add(std::vector<HostValue> arguments) {
    const napi_callback add = AddFunction();
    host.calls.clear();
    host.arguments = std::move(arguments);
    return add(kEnvironment, kCallbackInfo);
  }

  double Sum(std::vector<HostValue> arguments) {
    const napi_value result = Add(std::move(arguments));
    EXPECT_EQ(result, Handle(&host.created));
    return host.created.number;
  }

  static HostValue Number(double number) { return {true, number}; }
  static HostValue NotANumber() { return {false, 99}; }

  HostValue exports_ = {false, 0};
};

TEST_F(StubHostTest, LoadingTheLibraryRegistersExactlyOneModule) {
  EXPECT_STRNE(Kestrun::Version(), "");
  EXPECT_EQ(registrationCount, 1);
  EXPECT_TRUE(host.calls.empty());
}

TEST_F(StubHostTest, TheDescriptorCarriesVersionOneTheNameAndNothingElse) {
  const napi_module& module = *registrations[0];
  EXPECT_EQ(module.nm_version, 1);
  EXPECT_EQ(module.nm_flags, 0u);
  EXPECT_EQ(module.nm_filename, nullptr);
  EXPECT_NE(module.nm_register_func, nullptr);
  EXPECT_STREQ(module.nm_modname, "kestrun");
  EXPECT_EQ(module.nm_priv, nullptr);
  for (void* word : module.reserved) EXPECT_EQ(word, nullptr);
}

TEST_F(StubHostTest, TheModuleDefinesAddAloneOnTheExportsAndReturnsThem) {
  EXPECT_EQ(registrations[0]->nm_register_func(kEnvironment, Handle(&exports_)), Handle(&exports_));

  EXPECT_EQ(host.calls, std::vector<std::string>({"define_properties"}));
  EXPECT_EQ(host.definedOn, Handle(&exports_));
  ASSERT_EQ(host.properties.size(), 1u);
  const napi_property_descriptor& add = host.properties[0];
  EXPECT_STREQ(add.utf8name, "add");
  EXPECT_EQ(add.name, nullptr);
  EXPECT_NE(add.method, nullptr);
  EXPECT_EQ(add.getter, nullptr);
  EXPECT_EQ(add.setter, nullptr);
  EXPECT_EQ(add.value, nullptr);
  EXPECT_EQ(add.attributes, napi_default);
  EXPECT_EQ(add.data, nullptr);
}

TEST_F(StubHostTest, TheExportsAreReturnedAlsoWhenTheHostRefusesTheProperty) {
  host.failEverything = true;
  EXPECT_EQ(registrations[0]->nm_register_func(kEnvironment, Handle(&exports_)), Handle(&exports_));
}

TEST_F(StubHostTest, AddAsksForTwoArgumentsInNullSlotsAndForNothingElse) {
  Add({Number(2), Number(3)});
  EXPECT_EQ(host.askedFor, 2u);
  EXPECT_TRUE(host.slotsWereNull);
  EXPECT_FALSE(host.askedForReceiverOrData);
}

TEST_F(StubHostTest, AddLooksAtTheTypesReadsTheNumbersAndCreatesTheSumInThisOrder) {
  Add({Number(2), Number(3)});
  EXPECT_EQ(host.calls, std::vector<std::string>({"get_cb_info", "typeof", "typeof", "get_value_double",
                                                  "get_value_double", "create_double"}));
}

TEST_F(StubHostTest, AddReturnsTheSumInDoublePrecision) {
  EXPECT_EQ(Sum({Number(2), Number(3)}), 5.0);
  EXPECT_EQ(Sum({Number(0.1), Number(0.2)}), 0.30000000000000004);
}

TEST_F(StubHostTest, AnArgumentThatIsMissingOrNotANumberCountsAsZero) {
  EXPECT_EQ(Sum({}), 0.0);
  EXPECT_EQ(Sum({Number(7)}), 7.0);
  EXPECT_EQ(Sum({NotANumber(), Number(7)}), 7.0);
  EXPECT_EQ(Sum({Number(7), NotANumber()}), 7.0);
  EXPECT_EQ(Sum({NotANumber(), NotANumber()}), 0.0);
}

TEST_F(StubHostTest, AHostThatFailsEveryCallGetsANullValueAndNoCrash) {
  const napi_callback add = AddFunction();
  host.failEverything = true;
  EXPECT_EQ(add(kEnvironment, kCallbackInfo), nullptr);
  EXPECT_EQ(host.created.number, 0.0);
}

}  // namespace
