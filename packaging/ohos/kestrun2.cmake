# For the CMakeLists.txt of an application's native module:
#
#   include(${CMAKE_CURRENT_SOURCE_DIR}/../../../oh_modules/kestrun2/kestrun2.cmake)
#   target_link_libraries(entry PRIVATE Kestrun2::Kestrun2)
if(NOT TARGET Kestrun2::Kestrun2)
  set(kestrun2_library "${CMAKE_CURRENT_LIST_DIR}/libs/${OHOS_ARCH}/libKestrun2.so")
  if(NOT EXISTS "${kestrun2_library}")
    message(FATAL_ERROR "kestrun2 has no library for OHOS_ARCH \"${OHOS_ARCH}\"; it comes for arm64-v8a.")
  endif()
  add_library(Kestrun2::Kestrun2 SHARED IMPORTED)
  set_target_properties(Kestrun2::Kestrun2 PROPERTIES
    IMPORTED_LOCATION "${kestrun2_library}"
    INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/include"
    INTERFACE_COMPILE_FEATURES cxx_std_17)
endif()
