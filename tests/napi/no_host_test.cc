// A program without a Node-API host: the library loads, works and registers nothing.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "kestrun/version.h"

namespace {

const char* const kHostFunctions[] = {"napi_module_register", "napi_define_properties", "napi_get_cb_info",
                                      "napi_typeof",          "napi_get_value_double",  "napi_create_double"};

TEST(ProgramWithoutAHost, HasTheLibraryLoadedAndNoneOfTheHostsFunctions) {
  EXPECT_STRNE(Kestrun::Version(), "");
  for (const char* name : kHostFunctions) EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

TEST(ProgramWithoutAHost, FindsTheVersionInTheLibraryWhetherSymbolsAreBoundAtOnceOrLate) {
  for (const int mode : {RTLD_NOW, RTLD_LAZY}) {
    void* const library = dlopen(KESTRUN_LIBRARY, mode);
    ASSERT_NE(library, nullptr) << dlerror();
    EXPECT_NE(dlsym(library, "_ZN7Kestrun7VersionEv"), nullptr) << dlerror();
    EXPECT_EQ(dlclose(library), 0);
  }
}

}  // namespace
