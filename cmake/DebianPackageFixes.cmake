# DebianPackageFixes.cmake -- run by cpack once it has made the Debian packages (CPACK_POST_BUILD_SCRIPTS), for what
# CPack 3.25 gets wrong in them:
# - Installed-Size counts each symbolic link as the file it points to (libkelvane1's library twice over): every
#   package gets dpkg's own measure instead, each file's size rounded up to whole KiB and 1 KiB for each directory
#   and link;
# - the md5sums of a -dbgsym package name its files by their paths in the build tree: every package's md5sums are
#   made again from the files it holds;
# - a -dbgsym package has no /usr/share/doc entry: it gets Debian's link to the documentation of the package it
#   belongs to (which it depends on), copyright and changelog included.
# Each package is unpacked, mended and packed again with dpkg-deb.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(NOT package MATCHES "[.]d?deb$")
    continue()
  endif()
  set(tree "${package}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(READ "${tree}/DEBIAN/control" control)

  string(REGEX MATCH "\nPackage: ([^\n]+)-dbgsym\n" dbgsym "\n${control}")
  if(dbgsym)
    file(MAKE_DIRECTORY "${tree}/usr/share/doc")
    file(CREATE_LINK "${CMAKE_MATCH_1}" "${tree}/usr/share/doc/${CMAKE_MATCH_1}-dbgsym" SYMBOLIC)
  endif()

  file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE "${tree}" "${tree}/*")
  list(SORT entries)
  set(kib 0)
  set(md5sums "")
  foreach(entry IN LISTS entries)
    if(entry MATCHES "^DEBIAN(/|$)")
      continue()
    elseif(IS_SYMLINK "${tree}/${entry}" OR IS_DIRECTORY "${tree}/${entry}")
      math(EXPR kib "${kib} + 1")
    else()
      file(SIZE "${tree}/${entry}" bytes)
      math(EXPR kib "${kib} + (${bytes} + 1023) / 1024")
      file(MD5 "${tree}/${entry}" md5)
      string(APPEND md5sums "${md5}  ${entry}\n")
    endif()
  endforeach()

  string(REGEX REPLACE "\nInstalled-Size: [0-9]*\n" "\nInstalled-Size: ${kib}\n" control "${control}")
  file(WRITE "${tree}/DEBIAN/control" "${control}")
  file(WRITE "${tree}/DEBIAN/md5sums" "${md5sums}")
  execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${package}"
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
