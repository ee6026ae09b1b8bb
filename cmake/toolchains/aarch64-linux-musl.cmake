# 64-bit Arm with musl and libc++, as on OpenHarmony: the tests of script/lib/musl_run.sh, under emulation.
#
# KESTRUN_MUSL_SYSROOT is the system that the script makes. The C++ library is the shared one, as in an app.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTRUN_MUSL_SYSROOT)

foreach(language C CXX)
  set(CMAKE_${language}_COMPILER_TARGET aarch64-linux-musl)
  # -mno-outline-atomics: the helper functions would ask glibc for the processor's abilities.
  # The others are the flags of the SDK.
  set(CMAKE_${language}_FLAGS_INIT "-mno-outline-atomics -D__MUSL__ -fdata-sections -ffunction-sections \
-funwind-tables -fstack-protector-strong -Werror=format-security")
endforeach()
set(CMAKE_C_COMPILER clang-15)
set(CMAKE_CXX_COMPILER clang++-15)
set(CMAKE_SYSROOT "${KESTRUN_MUSL_SYSROOT}")
string(APPEND CMAKE_CXX_FLAGS_INIT " -stdlib=libc++")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -static-libgcc -nostdlib++ -Wl,-z,noexecstack")
endforeach()
set(CMAKE_CXX_STANDARD_LIBRARIES "-lc++_shared")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L "${KESTRUN_MUSL_SYSROOT}")
if(KESTRUN_EMULATED_PAGE_SIZE)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -p ${KESTRUN_EMULATED_PAGE_SIZE})
endif()
