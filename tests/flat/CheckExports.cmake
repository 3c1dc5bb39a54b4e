# Checks that the shared library exports exactly the KV_Log functions that KV_Log.h declares,
# and that there are 84 of them.
# Usage: cmake -DLIBRARY=<libkorvane-logging.so> -DHEADER=<KV_Log.h> -P CheckExports.cmake

execute_process(COMMAND nm -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(exported "")
foreach(line IN LISTS lines)
  if(line MATCHES " [A-Za-z] (KV_Log[A-Za-z0-9_]*)$")
    list(APPEND exported ${CMAKE_MATCH_1})
  endif()
endforeach()

file(READ ${HEADER} header)
string(REGEX MATCHALL "KV_Log[A-Za-z]+_[A-Za-z0-9]+\\(" calls "${header}")
set(declared "")
foreach(call IN LISTS calls)
  string(REPLACE "(" "" name ${call})
  list(APPEND declared ${name})
endforeach()

list(REMOVE_DUPLICATES declared)
list(SORT declared)
list(SORT exported)
list(LENGTH declared declaredCount)
list(LENGTH exported exportedCount)
set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
set(extra ${exported})
list(REMOVE_ITEM extra ${declared})
if(NOT declaredCount EQUAL 84 OR NOT exportedCount EQUAL 84 OR missing OR extra)
  message(FATAL_ERROR "declared ${declaredCount}, exported ${exportedCount}\n"
    "declared but not exported: ${missing}\nexported but not declared: ${extra}")
endif()
message(STATUS "84 KV_Log functions declared and exported")
