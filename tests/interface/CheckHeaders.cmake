# cmake -DCOMPILER=name -DSTANDARD=number "-DOPTIONS=options" -DINCLUDE=folder -DWORK=folder
#   -P CheckHeaders.cmake
# Fails unless each header below INCLUDE/ktr compiles alone, twice in a row, without a warning.

cmake_minimum_required(VERSION 3.25)
find_program(compiler NAMES ${COMPILER} NO_CACHE)
if(NOT compiler)
  message(FATAL_ERROR "there is no ${COMPILER} on this machine; script/bootstrap installs it")
endif()
separate_arguments(OPTIONS)
file(GLOB_RECURSE headers RELATIVE ${INCLUDE} ${INCLUDE}/ktr/*.h)
if(NOT headers)
  message(FATAL_ERROR "there are no headers below ${INCLUDE}")
endif()
foreach(header IN LISTS headers)
  string(MAKE_C_IDENTIFIER ${header} name)
  file(WRITE ${WORK}/${name}.cpp "#include \"${header}\"\n#include \"${header}\"\n")
  execute_process(
    COMMAND ${compiler} -std=c++${STANDARD} -fsyntax-only -I${INCLUDE} ${OPTIONS} ${WORK}/${name}.cpp
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(SEND_ERROR "${header} does not compile alone with ${COMPILER} as C++${STANDARD}")
  endif()
endforeach()
