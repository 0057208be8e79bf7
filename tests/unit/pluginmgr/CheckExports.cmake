# cmake -DLIBRARY=file -DSONAME=name [-DSYMBOLS=file] -DNM=nm -DOBJDUMP=objdump
#   -P CheckExports.cmake
# Fails unless LIBRARY calls itself SONAME and, if SYMBOLS is given, its dynamic symbol table defines
# exactly the (decorated) names listed there, one on a line; lines that begin with # are remarks.

execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "SONAME +([^ \n]+)" found "${headers}")
if(NOT CMAKE_MATCH_1 STREQUAL SONAME)
  message(SEND_ERROR "${LIBRARY} has the soname '${CMAKE_MATCH_1}', not '${SONAME}'")
endif()

if(SYMBOLS)
  execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY}
    OUTPUT_VARIABLE table COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE " [^\n]*" "" table "${table}")
  string(REGEX MATCHALL "[^\n]+" actual "${table}")
  file(STRINGS ${SYMBOLS} expected REGEX "^[^#]")
  set(extra ${actual})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${actual})
  foreach(symbol IN LISTS extra)
    message(SEND_ERROR "${LIBRARY} exports ${symbol}, which is not in ${SYMBOLS}")
  endforeach()
  foreach(symbol IN LISTS missing)
    message(SEND_ERROR "${LIBRARY} does not export ${symbol}")
  endforeach()
endif()
