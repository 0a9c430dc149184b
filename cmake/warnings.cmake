# Warnings of every C++ target of ours, as errors. Log lines carry paths under the source root, not those of the build machine.
add_library(kelim_warnings INTERFACE)
target_compile_options(kelim_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2 -Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
