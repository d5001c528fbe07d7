# Fails unless the loadable module's dynamic symbol table defines exactly the
# five entry points. Run as: cmake -DLIB=<path> -DNM=<nm> -P CheckExports.cmake
execute_process(COMMAND ${NM} -D --defined-only ${LIB}
                OUTPUT_VARIABLE SYMBOLS RESULT_VARIABLE RC)
if(NOT RC EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REGEX MATCHALL "[^\n]+" LINES "${SYMBOLS}")
set(FOUND "")
foreach(LINE IN LISTS LINES)
  # "address type name"; absolute symbols such as version nodes are not code.
  if(LINE MATCHES "^[0-9a-fA-F]* +([A-Za-z]) +([^ ]+)$" AND NOT CMAKE_MATCH_1 STREQUAL "A")
    list(APPEND FOUND ${CMAKE_MATCH_2})
  endif()
endforeach()
list(SORT FOUND)
set(EXPECTED zvCreateInstance zvDestroyInstance zvGetInterfaceName zvInitialize zvUninitialize)
if(NOT FOUND STREQUAL EXPECTED)
  message(FATAL_ERROR "exported: ${FOUND}\nexpected: ${EXPECTED}")
endif()
message(STATUS "exports: ${FOUND}")
