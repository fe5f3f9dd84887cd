# `cmake --install`: headers, libkestrel.a and libkestrel.so, the CMake package
# (find_package(Kestrel) gives Kestrel::kestrel, the shared library, and
# Kestrel::kestrel_static) and kestrel.pc for pkg-config.
#
# Layout under the prefix: the C header as include/kestrel/kestrel.h and the
# C++ headers under include/kestrel/ with the same paths as under src/, so
# code includes "facade/hotword-detector.h" the same way in the tree and
# outside it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(kestrel-shared PROPERTIES EXPORT_NAME kestrel)
set_target_properties(kestrel PROPERTIES EXPORT_NAME kestrel_static)
install(TARGETS kestrel kestrel-shared EXPORT KestrelTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

install(FILES ${CMAKE_SOURCE_DIR}/src/kestrel/kestrel.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrel)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/src/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrel
  FILES_MATCHING PATTERN "*.h"
  PATTERN "kestrel" EXCLUDE
  PATTERN "capi" EXCLUDE)

set(KESTREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrel)
install(EXPORT KestrelTargets NAMESPACE Kestrel:: DESTINATION ${KESTREL_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/KestrelConfig.cmake.in
  ${CMAKE_BINARY_DIR}/KestrelConfig.cmake INSTALL_DESTINATION ${KESTREL_CMAKE_DIR})
# Before 1.0 a minor version may change the interface; after, the major one.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KestrelConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/KestrelConfig.cmake ${CMAKE_BINARY_DIR}/KestrelConfigVersion.cmake
  DESTINATION ${KESTREL_CMAKE_DIR})

# Relative to the .pc file, so that `cmake --install --prefix` anywhere works.
file(RELATIVE_PATH KESTREL_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_SOURCE_DIR}/cmake/kestrel.pc.in ${CMAKE_BINARY_DIR}/kestrel.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kestrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
