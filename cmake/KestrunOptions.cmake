# kestrun_options: how our own code is compiled. Nothing of it reaches those who link the library.
add_library(kestrun_options INTERFACE)
target_compile_features(kestrun_options INTERFACE cxx_std_20)
target_compile_options(kestrun_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -fvisibility=hidden -fvisibility-inlines-hidden)
if(KESTRUN_WERROR)
  target_compile_options(kestrun_options INTERFACE -Werror)
endif()

# The sanitizers apply to every target, tests and tools included: a half-instrumented program reports
# errors that are not there.
if(KESTRUN_SANITIZE)
  add_compile_options(-fsanitize=${KESTRUN_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KESTRUN_SANITIZE})
  if(KESTRUN_SANITIZE MATCHES "undefined")
    # The check of the dynamic type asks the kernel through a pipe whether an object is there, and takes a process
    # that has run out of descriptors, as some tests have, for one that has lost its objects.
    add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=vptr)
  endif()
endif()

find_program(KESTRUN_CCACHE ccache)
if(KESTRUN_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KESTRUN_CCACHE})
endif()
