# Installation (GNUInstallDirs paths, DESTDIR honoured by cmake --install) and
# the Debian packages.  Components: runtime (the shared library), dev (headers,
# static library, the libzel.so link, pkg-config and CMake files) and tools
# (programs and man pages, installed where they are built).
include(CMakePackageConfigHelpers)

set(ZEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libzel)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT dev FILES_MATCHING PATTERN "*.h")
install(TARGETS zel EXPORT libzelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS zel_static EXPORT libzelTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT libzelTargets NAMESPACE zel:: DESTINATION ${ZEL_CMAKE_DIR} COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/libzelConfig.cmake.in
  ${PROJECT_BINARY_DIR}/libzelConfig.cmake INSTALL_DESTINATION ${ZEL_CMAKE_DIR})
# The SONAME is libzel.so.0: any 0.x satisfies a request for 0.y with y <= x.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libzelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/libzelConfig.cmake ${PROJECT_BINARY_DIR}/libzelConfigVersion.cmake
        DESTINATION ${ZEL_CMAKE_DIR} COMPONENT dev)

# The .pc file finds its prefix from its own place, so a DESTDIR or unpacked
# copy works without a sysroot.
file(RELATIVE_PATH ZEL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/libzel.pc.in ${PROJECT_BINARY_DIR}/libzel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libzel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

set(CPACK_PACKAGE_NAME libzel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "state library of a distributed virtual switch")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The packages carry stripped binaries; the build tree keeps the debug info.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "libzel developers <libzel@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Library dependencies of the shared library and the programs (libsqlite3-0,
# libstdc++6, ...) come from dpkg-shlibdeps; the ones between the three
# packages from the component dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Programs linked with libzel.so find it in the build tree; their dependency
# on libzel0 is the component dependency.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel0)
# A shlibs file for packages built against it, and the ldconfig trigger.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzel-dev)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME libzel-tools)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
# The static library and the CMake target zel::zel_static need SQLite's own
# development files.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsqlite3-dev, libsimdjson-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "libzel shared library")
set(CPACK_COMPONENT_DEV_DESCRIPTION "libzel headers, static library, pkg-config and CMake files")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "libzel command-line programs")
include(CPack)
