# 64-bit Arm Linux with the distribution's cross compiler; test programs run under user-mode emulation.
#
# Packages: g++-aarch64-linux-gnu, qemu-user-static. KESTRUN_EMULATED_PAGE_SIZE=16384 runs the tests as on a kernel
# with pages of that size. With 65536 the emulator ends some programs that start threads: it does not map the end of
# the page behind the dynamic loader's data, which the loader takes for its own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries come from the cross compiler's tree, programs from the machine that builds.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L /usr/aarch64-linux-gnu)
if(KESTRUN_EMULATED_PAGE_SIZE)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -p ${KESTRUN_EMULATED_PAGE_SIZE})
endif()
