# corvane_strict_warnings(target): warnings are errors in the project's own code.
function(corvane_strict_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
  # GCC's flow analysis at -O3 reports Eigen storage inside std::optional as "maybe
  # uninitialized" where it is not; the warning stays visible but does not fail the build.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-error=maybe-uninitialized)
  endif()
endfunction()
