# Warnings are errors everywhere; the code is meant to build cleanly with gcc and clang.
add_library(ozm_warnings INTERFACE)
target_compile_options(ozm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
  -Wformat=2 -Wimplicit-fallthrough -Werror)
