# Checks that the shared library exports exactly the 84 KV_Log functions that KV_Log.h declares,
# and exactly the KVX_ functions that KV_LogExtensions.h declares.
# Usage: cmake -DLIBRARY=<libkorvane-logging.so> -DHEADER=<KV_Log.h>
#              -DEXTENSIONS=<KV_LogExtensions.h> -P CheckExports.cmake
execute_process(COMMAND nm -D --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm: ${result}")
endif()

# The names that `header` declares and the library exports, for names matching `pattern`.
function(compare header pattern)
  string(REGEX MATCHALL " [A-Za-z] ${pattern}\n" exported "${symbols}")
  list(TRANSFORM exported REPLACE "^ [A-Za-z] |\n$" "")
  file(READ ${header} text)
  string(REGEX MATCHALL "${pattern}\\(" declared "${text}")
  list(TRANSFORM declared REPLACE "\\($" "")
  list(REMOVE_DUPLICATES declared)
  list(SORT declared)
  list(SORT exported)
  if(NOT declared STREQUAL exported)
    message(FATAL_ERROR "${header} declares: ${declared}\nexported: ${exported}")
  endif()
  list(LENGTH declared count)
  set(count ${count} PARENT_SCOPE)
endfunction()

compare(${HEADER} "KV_Log[A-Za-z]+_[A-Za-z0-9]+")
if(NOT count EQUAL 84)
  message(FATAL_ERROR "${HEADER} declares ${count} KV_Log functions, not 84")
endif()
compare(${EXTENSIONS} "KVX_[A-Za-z0-9_]+")
