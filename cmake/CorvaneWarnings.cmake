# corvane_strict_warnings(target): warnings are errors in the project's own code.
function(corvane_strict_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
endfunction()
