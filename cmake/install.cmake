# Installation of libafehal and afehal-tool, and the files that let other
# projects find the library: a CMake package (find_package(afehal CONFIG),
# target afehal::afehal) and a pkg-config file (afehal.pc).
#
# Components, which the Debian packages follow (cmake/package.cmake):
#   runtime      libafehal.so.1.19.0 and its SONAME link libafehal.so.1
#   development  the public header, the link libafehal.so, the CMake and
#                pkg-config files
#   tools        afehal-tool and its man page
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The file name carries the interface version; the SONAME changes only with
# its major number, when a service built against the old one could break.
set_target_properties(afehal PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME afehal)

# liblog may live outside the loader's default search path (Debian keeps it
# in <libdir>/android); the installed binaries then carry its directory.
get_filename_component(AFEHAL_LIBLOG_DIR "${ANDROID_LOG_LIBRARY}" DIRECTORY)
if(NOT AFEHAL_LIBLOG_DIR IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES)
  set(AFEHAL_INSTALL_RPATH "${AFEHAL_LIBLOG_DIR}")
endif()
set_target_properties(afehal PROPERTIES INSTALL_RPATH "${AFEHAL_INSTALL_RPATH}")

install(TARGETS afehal EXPORT afehal-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime
    NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/afehal/afehal.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/afehal COMPONENT development)

# ---- CMake package --------------------------------------------------------
set(AFEHAL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/afehal)
install(EXPORT afehal-targets NAMESPACE afehal:: FILE afehal-targets.cmake
  DESTINATION ${AFEHAL_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/afehal-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/afehal-config.cmake
  INSTALL_DESTINATION ${AFEHAL_CMAKE_DIR})
# A service built against 1.x runs on any 1.y with y >= x; 2.0 would change
# the SONAME.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/afehal-config-version.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/afehal-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/afehal-config-version.cmake
  DESTINATION ${AFEHAL_CMAKE_DIR} COMPONENT development)

# ---- pkg-config -------------------------------------------------------------
# The prefix is the one installed to (`cmake --install --prefix DIR`, or /usr
# in the Debian packages), so pkg-config recognises /usr/include and the
# multiarch directory as system paths and leaves them out of the flags. For
# a copy under a sysroot, set PKG_CONFIG_SYSROOT_DIR.
set(AFEHAL_PC_PREFIX "@AFEHAL_PC_PREFIX@") # filled in at install time
configure_file(cmake/afehal.pc.in ${CMAKE_CURRENT_BINARY_DIR}/afehal.pc.in @ONLY)
install(CODE "
  set(AFEHAL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_CURRENT_BINARY_DIR}/afehal.pc.in\"
                 \"${CMAKE_CURRENT_BINARY_DIR}/install/afehal.pc\" @ONLY)"
  COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/install/afehal.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# ---- afehal-tool --------------------------------------------------------------
# Its man page is made from its help by help2man, when the tool can run here.
find_program(AFEHAL_HELP2MAN help2man)
if(TARGET afehal-tool AND AFEHAL_HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
  set(AFEHAL_MAN_PAGE ${CMAKE_CURRENT_BINARY_DIR}/afehal-tool.1.gz)
  add_custom_command(OUTPUT ${AFEHAL_MAN_PAGE}
    COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:afehal-tool> -DOUTPUT=${AFEHAL_MAN_PAGE}
            -DHELP2MAN=${AFEHAL_HELP2MAN} -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/manpage.cmake
    DEPENDS afehal-tool ${CMAKE_CURRENT_SOURCE_DIR}/cmake/manpage.cmake
    COMMENT "Writing the man page of afehal-tool"
    VERBATIM)
  add_custom_target(afehal-tool-man ALL DEPENDS ${AFEHAL_MAN_PAGE})
elseif(TARGET afehal-tool)
  message(STATUS "help2man not found or cross-compiling: no man page for afehal-tool")
endif()
if(TARGET afehal-tool)
  set_target_properties(afehal-tool PROPERTIES INSTALL_RPATH "${AFEHAL_INSTALL_RPATH}")
  install(TARGETS afehal-tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  if(AFEHAL_MAN_PAGE)
    install(FILES ${AFEHAL_MAN_PAGE}
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
endif()

# The source list and build settings of the library, for the check that
# Android.bp builds the same library (scripts/check-android-bp.py).
set(AFEHAL_BUILD_MANIFEST ${CMAKE_CURRENT_BINARY_DIR}/afehal-build-manifest.txt)
set(manifest "")
foreach(src ${AFEHAL_SOURCES})
  file(RELATIVE_PATH rel ${CMAKE_CURRENT_SOURCE_DIR} ${src})
  string(APPEND manifest "source ${rel}\n")
endforeach()
foreach(data ${AFEHAL_FIRMWARE_IMAGE} ${AFEHAL_TEST_LIMITS})
  file(RELATIVE_PATH rel ${CMAKE_CURRENT_SOURCE_DIR} ${data})
  string(APPEND manifest "data ${rel}\n")
endforeach()
get_target_property(defs afehal_obj COMPILE_DEFINITIONS)
foreach(def ${defs})
  string(APPEND manifest "define ${def}\n")
endforeach()
get_directory_property(options COMPILE_OPTIONS)
foreach(opt ${options})
  if(opt MATCHES "^-W")
    string(APPEND manifest "warning ${opt}\n")
  endif()
endforeach()
string(APPEND manifest "std c++${CMAKE_CXX_STANDARD}\n")
get_target_property(visibility afehal_obj CXX_VISIBILITY_PRESET)
string(APPEND manifest "visibility ${visibility}\n")
file(WRITE ${AFEHAL_BUILD_MANIFEST} "${manifest}")
