# kestrun_options: how our own code is compiled. Nothing of it reaches those who link the library.
add_library(kestrun_options INTERFACE)
target_compile_features(kestrun_options INTERFACE cxx_std_20)
target_compile_options(kestrun_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -fvisibility=hidden -fvisibility-inlines-hidden)
if(CMAKE_UNITY_BUILD)
  # Joined files look like headers to GCC, whose types with members of a file's own it finds suspicious.
  target_compile_options(kestrun_options INTERFACE -Wno-subobject-linkage)
endif()
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

# kestrun_sanitizer_environment(VARIABLE): the settings, for `cmake -E env`, under which a program that was built
# without the sanitizers loads the library: their runtimes have to be the first libraries of the process. Leaks are not
# looked for, because interpreters leave memory to the system when they end.
function(kestrun_sanitizer_environment variable)
  set(runtimes "")
  foreach(pair address:asan undefined:ubsan thread:tsan)
    string(REPLACE ":" ";" pair ${pair})
    list(GET pair 0 sanitizer)
    list(GET pair 1 runtime)
    if(KESTRUN_SANITIZE MATCHES ${sanitizer})
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=lib${runtime}.so
        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
      list(APPEND runtimes ${path})
    endif()
  endforeach()
  set(environment "")
  if(runtimes)
    list(JOIN runtimes ":" runtimes)
    set(environment LD_PRELOAD=${runtimes} ASAN_OPTIONS=detect_leaks=0)
  endif()
  set(${variable} ${environment} PARENT_SCOPE)
endfunction()
