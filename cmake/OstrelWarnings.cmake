# Warnings are errors for the project's own targets only; dependencies are left alone.
# Designated initializers that leave members to their default member initializers are the idiom
# for the manifest records, so g++'s missing-field-initializers warning is off.
function(ostrel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror
                                           -Wno-missing-field-initializers)
endfunction()
