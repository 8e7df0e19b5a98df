# KelvaneCPackChecks.cmake -- read by cpack before it makes packages (CPACK_PROJECT_CONFIG_FILE). Debian packages
# install under /usr, with the library in Debian's multiarch directory; only a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr has that layout (its install rules, search path and package files all follow it).
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "Debian packages come from a build configured for /usr, and this one installs under "
                      "'${CPACK_PACKAGING_INSTALL_PREFIX}'. Configure one with -DCMAKE_INSTALL_PREFIX=/usr "
                      "(README: Installing).")
endif()
