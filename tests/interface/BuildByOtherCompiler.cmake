# cmake -DCOMPILER=name -DCOMPILER_ID=id -DCOMMON=file -DBUILD=folder -DSTANDARD=number
#   -DBUILD_TYPE=type -DFLAGS=flags -DLAUNCHER=program -P BuildByOtherCompiler.cmake
# Builds tests/interface/other with COMPILER. At test time, so that a machine without that compiler
# still builds everything else, and is told by the test what it lacks.

cmake_minimum_required(VERSION 3.25)
find_program(compiler NAMES ${COMPILER} NO_CACHE)
if(NOT compiler)
  message(FATAL_ERROR "there is no ${COMPILER} on this machine; script/bootstrap installs it")
endif()
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/other -B ${BUILD} -G Ninja
    -DCMAKE_CXX_COMPILER=${compiler} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
    -DCMAKE_CXX_STANDARD=${STANDARD} -DCMAKE_BUILD_TYPE=${BUILD_TYPE} -DCMAKE_CXX_FLAGS=${FLAGS}
    -DKETRA_COMPILER_ID=${COMPILER_ID} -DKETRA_COMMON=${COMMON}
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD} COMMAND_ERROR_IS_FATAL ANY)
