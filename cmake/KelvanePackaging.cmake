# KelvanePackaging.cmake -- Debian packages with CPack: `cpack -G DEB` in a build directory makes one package per
# install component, each installing under /usr:
#   libkelvane1     the shared library (component library)
#   libkelvane-dev  header, libkelvane.so, kelvane.pc and the CMake package config (component development)
#   zset            zset and zset-report (component zset)
# The library's dependencies (libc, libstdc++, hiredis, OpenSSL) come from dpkg-shlibdeps; the other two depend on the
# library package of the same version.
set(CPACK_PACKAGE_NAME kelvane)
set(CPACK_PACKAGE_VERSION ${KELVANE_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "kelvane client library and the zset conformance program")
set(CPACK_PACKAGE_CONTACT "kelvane maintainers <kelvane@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL library development zset)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkelvane${KELVANE_SOVERSION})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
# A shlibs file for the library package, so that packages built against it get their dependency from
# dpkg-shlibdeps; CPack adds the ldconfig calls on install and removal.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Programs built against 1.0 run with any later 1.x.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelvane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)

set(CPACK_DEBIAN_ZSET_PACKAGE_NAME zset)
set(CPACK_DEBIAN_ZSET_PACKAGE_SECTION devel)
# zset's own needs besides the library: libc and libstdc++ (zset-report needs nothing else).
set(CPACK_DEBIAN_ZSET_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps meets libkelvane.so.1 in the build tree, not in an installed package.
get_target_property(kelvane_binary_dir kelvane BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${kelvane_binary_dir})

include(CPack)
cpack_add_component(library DISPLAY_NAME "kelvane library"
  DESCRIPTION "libkelvane.so.1: the kelvane client interface over Redis")
cpack_add_component(development DISPLAY_NAME "kelvane development files" DEPENDS library
  DESCRIPTION "kelvane.h, pkg-config and CMake package files")
cpack_add_component(zset DISPLAY_NAME "zset" DEPENDS library
  DESCRIPTION "zset, the sorted-set conformance program of the kelvane library, and zset-report, its transcript reader")
