# KelvaneRuntimePaths.cmake -- where zset looks for libkelvane.so.1 at run time.
#
# In the build tree zset finds the library it was built with, and a user can still point it at another one with
# LD_LIBRARY_PATH (scripts/run-zset.sh --library): the search path is written as DT_RUNPATH, which the loader
# consults after LD_LIBRARY_PATH, never as DT_RPATH, which it would consult first. Installed, zset finds the
# library installed next to it, wherever the prefix was moved: $ORIGIN/../lib (or wherever the prefix's libdir
# lies relative to its bindir).

target_link_options(zset PRIVATE -Wl,--enable-new-dtags)

if(IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR
   IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "kelvane installs relative to its prefix: give CMAKE_INSTALL_BINDIR, CMAKE_INSTALL_LIBDIR "
                      "and CMAKE_INSTALL_INCLUDEDIR as paths inside it")
endif()
file(RELATIVE_PATH KELVANE_BIN_TO_LIB "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
set_target_properties(zset PROPERTIES INSTALL_RPATH "$ORIGIN/${KELVANE_BIN_TO_LIB}")

# When the build tree has the same shape (build/src/zset, build/lib/libkelvane.so.1) zset carries that one path
# from the start. Otherwise CMake writes the build tree's absolute path and rewrites it on installation; it then
# pads the build path with an empty entry, which the loader reads as the current directory.
get_target_property(zset_output_dir zset RUNTIME_OUTPUT_DIRECTORY)
get_target_property(kelvane_output_dir kelvane LIBRARY_OUTPUT_DIRECTORY)
if(NOT zset_output_dir AND NOT kelvane_output_dir)
  get_target_property(zset_build_dir zset BINARY_DIR)
  get_target_property(kelvane_build_dir kelvane BINARY_DIR)
  file(RELATIVE_PATH zset_to_kelvane "${zset_build_dir}" "${kelvane_build_dir}")
  if(zset_to_kelvane STREQUAL KELVANE_BIN_TO_LIB)
    set_target_properties(zset PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
  endif()
endif()
