# Installs the built project into a fresh root, with `cmake --install` (METHOD install) or from
# the Debian package CPack builds (METHOD deb, unpacked with dpkg -x), then configures, builds and
# runs a consumer project that finds it with find_package(corvane_shaper_window CONFIG REQUIRED).
# The installed libraries and the consumer run with an empty environment: the libraries find
# each other through their run path alone.
set(root ${WORK_DIR}/root)
set(consumer_build ${WORK_DIR}/consumer-build)
file(REMOVE_RECURSE ${WORK_DIR})

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "Step failed (${result}): ${ARGN}")
  endif()
endfunction()

if(METHOD STREQUAL "deb")
  run_step(${CPACK_COMMAND} -G DEB --config ${PROJECT_BINARY_DIR}/CPackConfig.cmake -B ${WORK_DIR})
  file(GLOB package ${WORK_DIR}/*.deb)
  run_step(dpkg -x ${package} ${root})
  set(prefix ${root}/usr)
else()
  run_step(${CMAKE_COMMAND} --install ${PROJECT_BINARY_DIR} --prefix ${root})
  set(prefix ${root})
endif()

file(GLOB_RECURSE libraries ${prefix}/*.so)
foreach(library IN LISTS libraries)
  execute_process(COMMAND env -i ldd ${library} OUTPUT_VARIABLE linked)
  if(linked MATCHES "not found")
    message(FATAL_ERROR "${library} does not find its libraries:\n${linked}")
  endif()
endforeach()
run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${consumer_build}
         -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run_step(${CMAKE_COMMAND} --build ${consumer_build})
run_step(env -i ${consumer_build}/consumer)
