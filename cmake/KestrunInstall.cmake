# What `cmake --install` puts in place, and the Debian package made of it.
#
# Everything is found relative to where it lies: a prefix may be chosen at installation and moved afterwards.
include(CMakePackageConfigHelpers)

install(TARGETS Kestrun2 EXPORT Kestrun2Targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/kestrun DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

# find_package(Kestrun2)
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrun2)
configure_package_config_file(cmake/Kestrun2Config.cmake.in ${PROJECT_BINARY_DIR}/Kestrun2Config.cmake
  INSTALL_DESTINATION ${package_directory} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/Kestrun2ConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(EXPORT Kestrun2Targets NAMESPACE Kestrun2:: DESTINATION ${package_directory})
install(FILES ${PROJECT_BINARY_DIR}/Kestrun2Config.cmake ${PROJECT_BINARY_DIR}/Kestrun2ConfigVersion.cmake
  DESTINATION ${package_directory})

# pkg-config kestrun2. GNUInstallDirs allows absolute directories, which can't be moved.
foreach(directory LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${directory}}")
    set(pkgconfig_${directory} "${CMAKE_INSTALL_${directory}}")
  else()
    set(pkgconfig_${directory} "\${prefix}/${CMAKE_INSTALL_${directory}}")
  endif()
endforeach()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pkgconfig_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH pkgconfig_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" pkgconfig_prefix "\${pcfiledir}/${pkgconfig_prefix}")
endif()
configure_file(cmake/kestrun2.pc.in ${PROJECT_BINARY_DIR}/kestrun2.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kestrun2.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The command-line program, which finds the library beside itself, its manual and its completions.
if(TARGET kestrun)
  file(RELATIVE_PATH library_from_program "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(kestrun PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_program}")
  install(TARGETS kestrun RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES docs/man/kestrun.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES tools/completions/kestrun.bash RENAME kestrun
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
  install(FILES tools/completions/_kestrun DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/site-functions)
  install(FILES tools/completions/kestrun.fish DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d)
endif()

# The documents and the examples, side by side as here: their links lead to each other. An app takes none of it along.
if(NOT OHOS)
  set(document_directory ${CMAKE_INSTALL_DATAROOTDIR}/doc/kestrun2)
  install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${document_directory})
  install(DIRECTORY docs examples DESTINATION ${document_directory} FILES_MATCHING
    PATTERN "*.md" PATTERN "*.svg" PATTERN "*.cc" PATTERN "*.py" PATTERN "*.csv" PATTERN "man" EXCLUDE PATTERN "doxygen_comments.py" EXCLUDE)
endif()

# `cpack` in the build directory makes one Debian package of library, headers and program.
if(PROJECT_IS_TOP_LEVEL)
  set(KESTRUN_PACKAGE_CONTACT "Kestrun developers <kestrun@localhost>" CACHE STRING
    "Maintainer that the Debian package names")
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_NAME kestrun2)
  set(CPACK_PACKAGE_CONTACT "${KESTRUN_PACKAGE_CONTACT}")
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  if(CMAKE_CROSSCOMPILING)
    # The packages of the other architecture are not here to ask which versions are needed.
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
  else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  endif()
  include(CPack)
endif()
