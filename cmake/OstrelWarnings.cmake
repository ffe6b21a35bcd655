# Warnings are errors for the project's own targets only; dependencies are left alone.
function(ostrel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()
