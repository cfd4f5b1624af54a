# SPDX-License-Identifier: Apache-2.0
# Install rules: the shared library, the header, a CMake package
# (find_package(orx-lumbra) gives orx-lumbra::lumbra) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS lumbra EXPORT orx-lumbra-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/lumbra.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

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

# The Python package lumbra, next to the library.  The default directory,
# lib/python3/dist-packages under the prefix, is on Debian's python3 path for
# the prefix /usr; for another prefix add it to PYTHONPATH.  The package
# finds the library through the relative path recorded in _installed.py, so
# the installed tree can be moved as a whole.
set(LUMBRA_PYTHON_INSTALL_DIR "lib/python3/dist-packages" CACHE STRING
  "Directory, relative to the prefix or absolute, that receives the Python package")
if(IS_ABSOLUTE "${LUMBRA_PYTHON_INSTALL_DIR}")
  file(RELATIVE_PATH LUMBRA_PYTHON_TO_LIB
    ${LUMBRA_PYTHON_INSTALL_DIR}/lumbra ${CMAKE_INSTALL_FULL_LIBDIR})
else()
  file(RELATIVE_PATH LUMBRA_PYTHON_TO_LIB
    /prefix/${LUMBRA_PYTHON_INSTALL_DIR}/lumbra /prefix/${CMAKE_INSTALL_LIBDIR})
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/python/_installed.py
  "# Written by the install rules: the library's directory relative to this package.\n"
  "LIBRARY_DIR = \"${LUMBRA_PYTHON_TO_LIB}\"\n")
install(DIRECTORY python/lumbra/ DESTINATION ${LUMBRA_PYTHON_INSTALL_DIR}/lumbra
  FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/python/_installed.py
  DESTINATION ${LUMBRA_PYTHON_INSTALL_DIR}/lumbra)
