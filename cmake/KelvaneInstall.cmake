# KelvaneInstall.cmake -- installation with the GNU directory conventions, in three components that the Debian
# packages follow (lib is GNUInstallDirs' libdir: lib, or lib/<multiarch tuple> for the prefix /usr on Debian):
#   library      lib/libkelvane.so.1.1.0 and its soname link libkelvane.so.1
#   development  include/kelvane.h, the link libkelvane.so, lib/pkgconfig/kelvane.pc and
#                lib/cmake/kelvane/ (find_package(kelvane) with the imported target kelvane::kelvane)
#   zset         bin/zset and bin/zset-report
# Everything installed is relocatable: kelvane.pc derives its prefix from its own place (${pcfiledir}), the
# package config from its own, and zset finds the library through $ORIGIN.
include(CMakePackageConfigHelpers)

get_target_property(KELVANE_VERSION kelvane VERSION)
get_target_property(KELVANE_SOVERSION kelvane SOVERSION)

# The library's include directory is a source path, right for the build tree only; installed, consumers get
# <prefix>/include instead. Paths already written as generator expressions are left as they are.
get_target_property(kelvane_include_dirs kelvane INTERFACE_INCLUDE_DIRECTORIES)
set(kelvane_build_include_dirs "")
foreach(dir IN LISTS kelvane_include_dirs)
  if(dir MATCHES "^\\$<")
    list(APPEND kelvane_build_include_dirs "${dir}")
  else()
    list(APPEND kelvane_build_include_dirs "$<BUILD_INTERFACE:${dir}>")
  endif()
endforeach()
set_property(TARGET kelvane PROPERTY INTERFACE_INCLUDE_DIRECTORIES ${kelvane_build_include_dirs})
target_include_directories(kelvane INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS kelvane EXPORT kelvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/include/kelvane.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(KELVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelvane)
install(EXPORT kelvaneTargets NAMESPACE kelvane:: FILE kelvaneTargets.cmake
  DESTINATION ${KELVANE_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kelvaneConfig.cmake INSTALL_DESTINATION ${KELVANE_CMAKE_DIR})
# A program built against 1.x runs with any later 1.x: the soname changes with the major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelvaneConfigVersion.cmake
  VERSION ${KELVANE_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelvaneConfig.cmake ${PROJECT_BINARY_DIR}/kelvaneConfigVersion.cmake
  DESTINATION ${KELVANE_CMAKE_DIR} COMPONENT development)

# kelvane.pc finds the prefix from where it lies: <prefix>/<libdir>/pkgconfig.
file(RELATIVE_PATH KELVANE_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KELVANE_PC_TO_PREFIX "${KELVANE_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kelvane.pc.in ${PROJECT_BINARY_DIR}/kelvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelvane.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(TARGETS zset zset-report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT zset)
