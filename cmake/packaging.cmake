# Packages made by `cpack` in a build folder: on Linux one Debian package per install
# component, on Windows one zip with everything. Name and version come from project().
set(TOVRA_PACKAGE_CONTACT "tovra maintainers <maintainers@tovra.example>" CACHE STRING
  "Maintainer named in the packages")

set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "tovra")
set(CPACK_PACKAGE_CONTACT ${TOVRA_PACKAGE_CONTACT})
# CPack would put one summary above every Debian package's own; each brings its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_STRIP_FILES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The tools link libtovra.so.1, which no installed package provides yet: dpkg-shlibdeps
  # finds it in the build tree and leaves its dependency to the component dependency.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
  # A shlibs file, so that programs packaged against libtovra get their dependency on it.
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtovra${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_RUNTIME_DESCRIPTION [=[communication library for RFID-style readers
tovra drives readers over TCP, serial lines, USB, Bluetooth and custom
transports through a flat C API. This package holds the shared library and
the open device libraries it loads at run time: zkcom (serial ports) and
zkudp (UDP discovery).]=])

  set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtovra-dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
  set(CPACK_COMPONENT_DEV_DEPENDS runtime)
  set(CPACK_DEBIAN_DEV_DESCRIPTION [=[development files for the tovra reader library
Headers, the link to the shared library, the CMake package (find_package(tovra),
target tovra::tovra) and the pkg-config file (tovra) for building programs
against libtovra.]=])

  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tovra-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
  set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
  set(CPACK_DEBIAN_TOOLS_DESCRIPTION [=[command-line tool and capture dissector for tovra readers
The tovra command drives readers from the shell through libtovra; the
dissector decodes the readers' protocol frames in captured traffic.]=])
endif()

include(CPack)
