# Warning flags for the project's own targets; dependencies are left alone. -Werror is added only
# in developer mode (OSTREL_DEVELOPER_MODE), never for users' builds.
# Designated initializers that leave members to their default member initializers are the idiom
# for the manifest records, so g++'s missing-field-initializers warning is off.
# g++'s maybe-uninitialized analysis runs after inlining and reports the std::string member of a
# std::variant destroyed on paths it cannot prove unreachable; at -O2 and -O3 it fires or not with
# unrelated changes to a caller, so it cannot gate a build. Clang's -Wuninitialized and the
# sanitizer stages cover uninitialised reads instead. Its -Wrestrict has the same fault with
# std::string appends of literals (GCC bug 105329): it fired in a test file that had not changed.
set(OSTREL_WARNING_OPTIONS -Wall -Wextra -Wpedantic -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND OSTREL_WARNING_OPTIONS -Wno-maybe-uninitialized -Wno-restrict)
endif()
if(OSTREL_DEVELOPER_MODE)
  list(APPEND OSTREL_WARNING_OPTIONS -Werror)
endif()

function(ostrel_set_warnings target)
  target_compile_options(${target} PRIVATE ${OSTREL_WARNING_OPTIONS})
endfunction()
