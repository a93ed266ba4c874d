# Debian packages of libafehal, built with `cpack -G DEB` from a build
# configured with -DCMAKE_INSTALL_PREFIX=/usr (so the library goes to the
# multiarch directory):
#   libafehal1     the shared library (component runtime)
#   libafehal-dev  header, link, CMake and pkg-config files (development)
#   afehal-tools   afehal-tool and its man page (tools)
# The run-time dependencies (libc, libstdc++, liblog, libpng) come from
# dpkg-shlibdeps, which reads what the binaries actually load.
set(CPACK_PACKAGE_NAME afehal)
set(CPACK_PACKAGE_VENDOR "libafehal developers")
set(CPACK_PACKAGE_CONTACT "libafehal developers <afehal@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET afehal-tool)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Package dependencies between components carry the exact version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# libafehal1 declares its SONAME (shlibs), so packages built against it
# depend on libafehal1 (>= the version they were built with).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libafehal1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "host-side analog front end of a capacitive touch panel
The library a touch service loads to drive the touch IC through the
kernel driver's device node: lifecycle, raw capacitance frames, scan
frequency and rate, calibration, firmware update and factory inspection.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libafehal-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "host-side analog front end of a capacitive touch panel - development files
The kvr_afe_* C header, the link library, the CMake package (afehal::afehal)
and the pkg-config file (afehal).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME afehal-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "command-line tool of the touch panel's analog front end
afehal-tool: live frame heatmap, firmware image and test-limits checks,
factory inspection with reports, on the device node or a simulated panel.")

include(CPack)
