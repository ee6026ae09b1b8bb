# OpenHarmony on 64-bit Arm, by the toolchain of its own SDK.
#
#   OHOS_NDK_HOME=.../native cmake -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/ohos-arm64.cmake ...
#
# OHOS_NDK_HOME is the directory `native` of the SDK, or the directory that contains it. It is remembered, so that
# later runs of CMake in the same build directory do without.
set(KESTRUN_OHOS_NDK "$ENV{OHOS_NDK_HOME}" CACHE PATH "The SDK's directory `native`, or the one above it")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTRUN_OHOS_NDK)

set(ohos_toolchain "${KESTRUN_OHOS_NDK}/build/cmake/ohos.toolchain.cmake")
if(NOT EXISTS "${ohos_toolchain}")
  set(ohos_toolchain "${KESTRUN_OHOS_NDK}/native/build/cmake/ohos.toolchain.cmake")
endif()
if(NOT KESTRUN_OHOS_NDK OR NOT EXISTS "${ohos_toolchain}")
  message(FATAL_ERROR "Set OHOS_NDK_HOME to the OpenHarmony SDK's directory `native`. "
    "There is no build/cmake/ohos.toolchain.cmake in \"${KESTRUN_OHOS_NDK}\".")
endif()

# The shared C++ library: strings and vectors cross the border between an application and this library, and all
# native libraries of one application have to agree on it.
set(OHOS_ARCH arm64-v8a)
set(OHOS_STL c++_shared)
set(OHOS_PLATFORM OHOS)
include("${ohos_toolchain}")

# CMake itself knows the system by name only where it comes with the SDK.
list(APPEND CMAKE_MODULE_PATH "${CMAKE_CURRENT_LIST_DIR}")
