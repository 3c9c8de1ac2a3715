# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# `cmake --install` gives the header, the library, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

set(varnix_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Varnix)

install(TARGETS varnix EXPORT VarnixTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/Varnix.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VarnixTargets NAMESPACE Varnix:: DESTINATION ${varnix_cmake_dir})

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/VarnixConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/VarnixConfig.cmake
  INSTALL_DESTINATION ${varnix_cmake_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VarnixConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/VarnixConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/VarnixConfigVersion.cmake
  DESTINATION ${varnix_cmake_dir})

# Relative to the file's own place, so that a moved prefix still works.
file(RELATIVE_PATH varnix_pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/varnix.pc.in ${CMAKE_CURRENT_BINARY_DIR}/varnix.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/varnix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
