# One set of warnings for everything that is built here; the build is silent with all of them.
add_library(tarn_warnings INTERFACE)
target_compile_options(tarn_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wformat=2
  $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>
  $<$<BOOL:${TARN_WERROR}>:-Werror>)
