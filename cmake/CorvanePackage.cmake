# Installs headers, both shared libraries and a CMake package, so that a consumer writes
#   find_package(corvane_shaper_window CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE corvane::shaper_window)
include(CMakePackageConfigHelpers)

set(CORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/corvane_shaper_window)

install(DIRECTORY include/window include/native
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp")
install(TARGETS corvane_shaper_common corvane_shaper_window
        EXPORT corvane_shaper_window_targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT corvane_shaper_window_targets
        NAMESPACE corvane::
        FILE corvane_shaper_window_targets.cmake
        DESTINATION ${CORVANE_CMAKE_DIR})

configure_package_config_file(cmake/corvane_shaper_window-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config.cmake
  INSTALL_DESTINATION ${CORVANE_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvane_shaper_window-config-version.cmake
        DESTINATION ${CORVANE_CMAKE_DIR})
