# KelvanePackaging.cmake -- Debian packages with CPack: `cpack -G DEB` in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr (GNUInstallDirs then gives Debian's layout: the library in lib/<multiarch tuple>)
# makes one package per install component, and one more per component with programs:
#   libkelvane1         the shared library (component library)
#   libkelvane-dev      header, libkelvane.so, kelvane.pc and the CMake package config (component development)
#   zset                zset and zset-report (component zset)
#   libkelvane1-dbgsym, zset-dbgsym   the debug information CPack strips from the other two's programs (.ddeb)
# Each package has a description of its own and carries /usr/share/doc/<package>/copyright (machine-readable,
# made from LICENSE) and changelog.Debian.gz. The library's dependencies (libc, libstdc++, hiredis, OpenSSL) come
# from dpkg-shlibdeps; the other two depend on the library package of the same version.
set(CPACK_PACKAGE_NAME kelvane)
set(CPACK_PACKAGE_VERSION ${KELVANE_VERSION})
set(KELVANE_PACKAGE_MAINTAINER "The kelvane authors <kelvane-authors@example.org>" CACHE STRING
    "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${KELVANE_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL library development zset)
# cpack refuses Debian packages from a build with another prefix: their files would land outside /usr, or in
# /usr/lib instead of the multiarch directory, with a search path and package files that point there.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/KelvaneCPackChecks.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianPackageFixes.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Stripped programs; their debug information goes to a -dbgsym package each, under /usr/lib/debug/.build-id.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkelvane${KELVANE_SOVERSION})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
# A shlibs file for the library package, so that packages built against it get their dependency from
# dpkg-shlibdeps. dpkg's ldconfig trigger updates the loader's cache on installation and removal (CPack also adds
# ldconfig calls to postinst and postrm).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Programs built against 1.0 run with any later 1.x.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"kelvane client library for sorted sets over Redis
libkelvane.so.1 is the kelvane client interface: sorted sets whose members
carry scores, optional values and a time-to-live, kept in a Redis 7 server
(standalone or a Redis Cluster) as Redis Functions and reached through
hiredis. Every operation is one atomic round trip.
.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"kelvane client library for sorted sets over Redis (development files)
libkelvane.so.1 is the kelvane client interface: sorted sets whose members
carry scores, optional values and a time-to-live, kept in a Redis 7 server.
.
This package holds what building a C or C++ program against the library
takes: the header kelvane.h, the link libkelvane.so, the pkg-config file
kelvane.pc and the CMake package (find_package(kelvane), kelvane::kelvane).")

set(CPACK_DEBIAN_ZSET_PACKAGE_NAME zset)
set(CPACK_DEBIAN_ZSET_PACKAGE_SECTION devel)
# zset's own needs besides the library: libc and libstdc++ (zset-report needs nothing else).
set(CPACK_DEBIAN_ZSET_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ZSET_DESCRIPTION
"conformance program for the sorted-set operations of kelvane
zset runs 68 cases of the kelvane client library's sorted-set operations
against a store server on 127.0.0.1:12345 and prints a transcript: a verdict
per case and a line per failed check.
.
zset-report reads such a transcript, lists the cases that did not pass,
writes a JUnit XML report and turns the verdict into an exit status for CI.")
# dpkg-shlibdeps meets libkelvane.so.1 in the build tree, not in an installed package.
get_target_property(kelvane_binary_dir kelvane BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${kelvane_binary_dir})

# ---- /usr/share/doc/<package> ------------------------------------------------------------------------------------
# copyright in the machine-readable format, its licence text taken from LICENSE (the paragraphs from
# "Redistribution" on, indented, empty lines as " ."); changelog.Debian.gz, one entry per package release.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE kelvane_license)
string(FIND "${kelvane_license}" "Redistribution" kelvane_terms_start)
string(SUBSTRING "${kelvane_license}" ${kelvane_terms_start} -1 kelvane_terms)
string(STRIP "${kelvane_terms}" kelvane_terms)
string(REPLACE "\n\n" "\n.\n" kelvane_terms "${kelvane_terms}")
string(REPLACE "\n" "\n " kelvane_terms "${kelvane_terms}")
file(WRITE ${PROJECT_BINARY_DIR}/debian/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: kelvane
Upstream-Contact: ${KELVANE_PACKAGE_MAINTAINER}

Files: *
Copyright: 2026 The kelvane authors
License: BSD-3-Clause

License: BSD-3-Clause
 ${kelvane_terms}
")

# The date of this package release; the project's own changes are in CHANGELOG.md.
set(KELVANE_PACKAGE_DATE "Mon, 23 Nov 2026 00:00:00 +0000")
file(WRITE ${PROJECT_BINARY_DIR}/debian/changelog
"kelvane (${KELVANE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium

  * kelvane ${KELVANE_VERSION} packaged with CPack.

 -- ${KELVANE_PACKAGE_MAINTAINER}  ${KELVANE_PACKAGE_DATE}
")
find_program(KELVANE_GZIP gzip)
set(kelvane_package_docs ${PROJECT_BINARY_DIR}/debian/copyright)
if(KELVANE_GZIP)
  # -n: no name or time stamp in the header, so the file is the same in every build.
  execute_process(COMMAND ${KELVANE_GZIP} -9nc ${PROJECT_BINARY_DIR}/debian/changelog
                  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
  list(APPEND kelvane_package_docs ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
endif()
# Only the packages carry them (EXCLUDE_FROM_ALL: a plain `cmake --install` leaves them out).
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${kelvane_package_docs}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
cpack_add_component(library DISPLAY_NAME "kelvane library")
cpack_add_component(development DISPLAY_NAME "kelvane development files" DEPENDS library)
cpack_add_component(zset DISPLAY_NAME "zset" DEPENDS library)
