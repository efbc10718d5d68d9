# Install components, one per package: "runtime" is what a program needs to run (the
# library under its SONAME and the device libraries it loads), "dev" what a build needs
# to link against it, "tools" the command-line tool and the capture dissector.
include(CMakePackageConfigHelpers)

install(TARGETS tovra EXPORT tovraTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(FILES
  include/tovra/export.h
  include/tovra/tovra.h
  include/tovra/transport.h
  include/tovra/zk_parameter.h
  ${PROJECT_BINARY_DIR}/include/tovra/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovra COMPONENT dev)
# What tovra expects of the device libraries a user brings.
install(DIRECTORY include/tovra/device/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovra/device
  COMPONENT dev FILES_MATCHING PATTERN "*.h")

install(EXPORT tovraTargets NAMESPACE tovra:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra
  COMPONENT dev)
configure_package_config_file(cmake/tovraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tovraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tovraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tovraConfig.cmake ${PROJECT_BINARY_DIR}/tovraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra COMPONENT dev)

set(TOVRA_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH TOVRA_PC_TO_PREFIX /prefix/${TOVRA_PC_DIR} /prefix)
string(REGEX REPLACE "/$" "" TOVRA_PC_TO_PREFIX ${TOVRA_PC_TO_PREFIX})
configure_file(cmake/tovra.pc.in ${PROJECT_BINARY_DIR}/tovra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tovra.pc DESTINATION ${TOVRA_PC_DIR} COMPONENT dev)
