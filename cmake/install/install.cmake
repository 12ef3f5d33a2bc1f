# What `cmake --install` puts where, and the Debian package made of the same files (cpack). Players find the
# library through pkg-config or find_package(c2ms); programs that embed foundation or engine do too.
include(CMakePackageConfigHelpers)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  message(FATAL_ERROR "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR count from the prefix")
endif()

install(FILES include/c2ms.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS c2ms LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_ARCHIVE_OUTPUT_DIRECTORY}/libc2ms.a DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Their headers include each other as "adif/..." and "eprobe/...": the include folder is c2ms/ above these.
foreach(folder adif eprobe)
  set_target_properties(${folder} PROPERTIES OUTPUT_NAME c2ms-${folder})
  install(TARGETS ${folder} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/c2ms FILES_MATCHING PATTERN *.h)
endforeach()

foreach(tool c2ms-get c2ms-server)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES docs/man/${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endforeach()
install(FILES README.md CHANGELOG.md docs/integrating.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/player.c examples/streams.c DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# What the headers of foundation and engine were compiled with: layouts follow from it.
set(embedded_definitions _GNU_SOURCE _FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  list(APPEND embedded_definitions _TIME_BITS=64)
endif()
if(C2MS_CHECKS OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  list(APPEND embedded_definitions C2MS_CHECKS=1)
endif()

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/c2ms)
file(RELATIVE_PATH config_to_prefix /${config_dir} /)
configure_file(cmake/install/c2msConfig.cmake.in c2msConfig.cmake @ONLY)
write_basic_package_version_file(c2msConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/c2msConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/c2msConfigVersion.cmake
  DESTINATION ${config_dir})

# c2ms_pkgconfig(NAME DESCRIPTION [REQUIRES ...] [CFLAGS ...] [LIBS ...] [LIBS_PRIVATE ...])
function(c2ms_pkgconfig pc_name pc_description)
  cmake_parse_arguments(arg "" "" "REQUIRES;CFLAGS;LIBS;LIBS_PRIVATE" ${ARGN})
  set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH up /${pkgconfig_dir} /)
  string(REGEX REPLACE "/$" "" up ${up})
  set(pc_prefix "\${pcfiledir}/${up}")
  set(pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  foreach(part requires cflags libs libs_private)
    string(TOUPPER ${part} key)
    list(JOIN arg_${key} " " pc_${part})
  endforeach()
  configure_file(cmake/install/pkgconfig.in ${pc_name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc_name}.pc DESTINATION ${pkgconfig_dir})
  # Below /usr nobody moves it, and pkg-config leaves out the system's folders when they are named plainly.
  install(CODE "
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
      set(file \"\$ENV{DESTDIR}/usr/${pkgconfig_dir}/${pc_name}.pc\")
      file(READ \"\${file}\" text)
      string(REGEX REPLACE \"prefix=[^\n]*pcfiledir[^\n]*\" \"prefix=/usr\" text \"\${text}\")
      file(WRITE \"\${file}\" \"\${text}\")
    endif()")
endfunction()

# libgcrypt stands among the private libraries, not the required packages: who links the shared library
# needs no development files of it.
c2ms_pkgconfig(c2ms "Media from several servers at once, read like a local file"
  CFLAGS -I\${includedir} LIBS_PRIVATE -lgcrypt -lgpg-error -lstdc++ -lm -pthread)
list(TRANSFORM embedded_definitions PREPEND -D OUTPUT_VARIABLE embedded_flags)
c2ms_pkgconfig(c2ms-adif "Foundation of c2ms: frames, pools, sockets, locks, strings (C++20)"
  CFLAGS -I\${includedir}/c2ms ${embedded_flags} LIBS -pthread)
c2ms_pkgconfig(c2ms-eprobe "Event engine of c2ms: sockets and timers over worker threads (C++20)"
  REQUIRES c2ms-adif)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME c2ms)
set(CPACK_PACKAGE_CONTACT "The c2ms developers <developers@c2ms.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "client-side media delivery library, its tools and development files")
set(CPACK_PACKAGE_DESCRIPTION
  "A player opens a URL and reads the media like a local, seekable file, while the library fetches the bytes "
  "in pieces from several servers at once.")
list(JOIN CPACK_PACKAGE_DESCRIPTION "" CPACK_PACKAGE_DESCRIPTION)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
