# KETRA_SANITIZE holds the value of -fsanitize= ("address,undefined", "thread"); empty means none.
set(KETRA_SANITIZE "" CACHE STRING "Sanitizers to build with, as for -fsanitize=")
if(KETRA_SANITIZE)
  add_compile_options(-fsanitize=${KETRA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KETRA_SANITIZE})
  # Plugins find their symbols in libraries that are loaded already; a sanitizer runtime too.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_link_options(-shared-libsan)
  endif()
endif()

option(KETRA_COVERAGE "Build with gcov instrumentation" OFF)
if(KETRA_COVERAGE)
  # Threads count at the same time, hence the atomic counters. Without semantic interposition the
  # same source has the same branches in a library as in a test program that compiles it in.
  add_compile_options(--coverage -fprofile-update=atomic -fno-semantic-interposition -O0)
  add_link_options(--coverage)
endif()
