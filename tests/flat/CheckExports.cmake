# Checks that the shared library exports exactly the 84 KV_Log functions that KV_Log.h declares.
# Usage: cmake -DLIBRARY=<libkorvane-logging.so> -DHEADER=<KV_Log.h> -P CheckExports.cmake
execute_process(COMMAND nm -D --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols
  RESULT_VARIABLE result)
string(REGEX MATCHALL " [A-Za-z] KV_Log[A-Za-z0-9_]*\n" exported "${symbols}")
list(TRANSFORM exported REPLACE "^ [A-Za-z] |\n$" "")
file(READ ${HEADER} header)
string(REGEX MATCHALL "KV_Log[A-Za-z]+_[A-Za-z0-9]+\\(" declared "${header}")
list(TRANSFORM declared REPLACE "\\($" "")
list(REMOVE_DUPLICATES declared)
list(SORT declared)
list(SORT exported)
list(LENGTH declared count)
if(NOT result EQUAL 0 OR NOT count EQUAL 84 OR NOT declared STREQUAL exported)
  message(FATAL_ERROR "nm: ${result}; ${count} declared: ${declared}\nexported: ${exported}")
endif()
