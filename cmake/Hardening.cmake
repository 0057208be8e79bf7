# What makes a defect in a file that we ship harder to use for an attack. Linked by the libraries, the
# host and the examples; not by tests and their fixtures, some of which are to misbehave.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

# without it CMake compiles for position independent executables, but leaves it to the compiler
# whether to link one
check_pie_supported(OUTPUT_VARIABLE ketra_pie LANGUAGES CXX)
if(NOT CMAKE_CXX_LINK_PIE_SUPPORTED)
  message(FATAL_ERROR "the compiler links no position independent executables: ${ketra_pie}")
endif()

add_library(ketra_hardening INTERFACE)
target_link_options(ketra_hardening INTERFACE
  -Wl,-z,relro,-z,now -Wl,-z,noexecstack)

# clang only warns of a flag that is another processor's
set(CMAKE_REQUIRED_FLAGS -Werror)
foreach(flag -fstack-protector-strong -fstack-clash-protection
             -fcf-protection=full -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "KETRA_HAS${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(ketra_hardening INTERFACE ${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)

# The C library's checks need an optimiser, and warn where there is none. Presets ask for one by
# CMAKE_CXX_FLAGS, in the configuration that has no name. Sanitizers have checks of their own, which
# see less behind these.
set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
if(CMAKE_CXX_FLAGS MATCHES "-O[1-3sz]")
  set(optimised $<NOT:$<CONFIG:Debug>>)
endif()
if(NOT KETRA_SANITIZE AND NOT KETRA_COVERAGE)
  # some compilers come with a level of their own, and a second definition would be a warning
  target_compile_options(ketra_hardening INTERFACE
    "$<${optimised}:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
endif()
