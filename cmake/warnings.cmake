# Log lines carry paths under the source root, not those of the build machine. (ccache hands the compiler paths relative to the build
# directory.)
file(RELATIVE_PATH kelim_source_from_build ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${kelim_source_from_build}=)

# Warnings of the project's own C++ targets, as errors.
add_library(kelim_warnings INTERFACE)
target_compile_options(kelim_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2 -Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
