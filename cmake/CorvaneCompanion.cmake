# corvane_companion_library(<target> <export name> <sources>...): a companion library of the
# package in the calling folder, built on the core library, which does not know it. Its headers
# are in include/<target>/; it is installed beside the core library, in its package, so that
# find_package(corvane_shaper_window) provides corvane::<export name> too.
function(corvane_companion_library target export_name)
  add_library(${target} SHARED ${ARGN})
  add_library(corvane::${export_name} ALIAS ${target})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PUBLIC corvane_shaper_window)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    EXPORT_NAME ${export_name})
  corvane_strict_warnings(${target})

  install(DIRECTORY include/${target}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          FILES_MATCHING PATTERN "*.hpp")
  install(TARGETS ${target}
          EXPORT corvane_shaper_window_targets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
