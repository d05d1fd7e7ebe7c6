# Installs headers, both shared libraries and a CMake package, so that a consumer writes
#   find_package(corvane_shaper_window CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE corvane::shaper_window)
# and builds a Debian package of the same files with `cpack -G DEB` in the build folder.
#
# A companion library joins the package from its own folder with one line,
#   install(TARGETS <target> EXPORT corvane_shaper_window_targets)
# which installs it beside the core libraries, with their run path. Its source include folder
# must be a $<BUILD_INTERFACE:...>; linking corvane::shaper_window gives it the installed include
# folder. Headers under the top-level include/ are installed with the core ones; headers kept
# in the companion's folder take one install(DIRECTORY ... DESTINATION
# ${CORVANE_INSTALL_INCLUDEDIR}) more.
include(CMakePackageConfigHelpers)

# colcon reads the version from package.xml; it must be project(VERSION), the one version.
file(READ ${PROJECT_SOURCE_DIR}/package.xml CORVANE_PACKAGE_MANIFEST)
if(NOT CORVANE_PACKAGE_MANIFEST MATCHES "<version>${PROJECT_VERSION}</version>")
  message(FATAL_ERROR "package.xml does not carry project(VERSION) ${PROJECT_VERSION}")
endif()

set(CORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/corvane_shaper_window)

install(DIRECTORY include/ ${PROJECT_BINARY_DIR}/include/
        DESTINATION ${CORVANE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp")
install(TARGETS corvane_shaper_common corvane_shaper_window
        EXPORT corvane_shaper_window_targets)
install(EXPORT corvane_shaper_window_targets
        NAMESPACE corvane::
        FILE corvane_shaper_window_targets.cmake
        DESTINATION ${CORVANE_CMAKE_DIR})
install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

configure_package_config_file(cmake/corvane_shaper_window-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config.cmake
  INSTALL_DESTINATION ${CORVANE_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config-version.cmake
        DESTINATION ${CORVANE_CMAKE_DIR})

# One Debian package holds the libraries, the headers and the CMake package; its run-time
# dependencies come from dpkg-shlibdeps, Eigen's headers from the package's own headers.
set(CPACK_PACKAGE_NAME corvane-shaper-window)
set(CPACK_PACKAGE_VENDOR corvane)
set(CPACK_PACKAGE_CONTACT "corvane developers <maintainers@corvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Validated windows of motion samples streamed to a real-time control loop (C++17)")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libeigen3-dev (>= 3.3)")
include(CPack)
