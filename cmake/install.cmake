include(CMakePackageConfigHelpers)

install(TARGETS tovra EXPORT tovraTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES
  include/tovra/export.h
  include/tovra/tovra.h
  include/tovra/transport.h
  include/tovra/zk_parameter.h
  ${PROJECT_BINARY_DIR}/include/tovra/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovra)
# What tovra expects of the device libraries a user brings.
install(DIRECTORY include/tovra/device/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tovra/device
  FILES_MATCHING PATTERN "*.h")

install(EXPORT tovraTargets NAMESPACE tovra:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra)
configure_package_config_file(cmake/tovraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tovraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tovraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tovraConfig.cmake ${PROJECT_BINARY_DIR}/tovraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tovra)

configure_file(cmake/tovra.pc.in ${PROJECT_BINARY_DIR}/tovra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tovra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
