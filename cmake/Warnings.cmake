# One set of warnings for everything that is ours; a warning is an error.
add_library(ketra_warnings INTERFACE)
target_compile_options(ketra_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wold-style-cast -Werror)
