# Installs the built project into a fresh prefix, then configures, builds and runs a consumer
# project that finds it with find_package(corvane_shaper_window CONFIG REQUIRED).
set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/consumer-build)
file(REMOVE_RECURSE ${prefix} ${consumer_build})

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "Step failed (${result}): ${ARGN}")
  endif()
endfunction()

run_step(${CMAKE_COMMAND} --install ${PROJECT_BINARY_DIR} --prefix ${prefix})
run_step(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${consumer_build}
         -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run_step(${CMAKE_COMMAND} --build ${consumer_build})
run_step(${consumer_build}/consumer)
