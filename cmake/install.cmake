# Install rules: the shared library, the header, a CMake package
# (find_package(orx-lumbra) gives orx-lumbra::lumbra) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS lumbra EXPORT orx-lumbra-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/lumbra.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(LUMBRA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/orx-lumbra)
install(EXPORT orx-lumbra-targets NAMESPACE orx-lumbra:: DESTINATION ${LUMBRA_CMAKE_DIR})
configure_package_config_file(cmake/orx-lumbra-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra-config.cmake
  INSTALL_DESTINATION ${LUMBRA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra-config-version.cmake
  DESTINATION ${LUMBRA_CMAKE_DIR})

# The pkg-config file finds the prefix relative to itself, so an installed
# tree can be moved.
file(RELATIVE_PATH LUMBRA_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/orx-lumbra.pc.in ${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orx-lumbra.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
