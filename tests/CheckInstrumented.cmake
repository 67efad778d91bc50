# Fails unless every library archive given calls into each instrumentation runtime named: the
# sanitizer and fuzzing builds must check and cover the library, not only the tests.
#   cmake -DNM=<nm> -DLIBRARIES=<a;b;...> -DMARKERS=<symbol prefix;...> -P CheckInstrumented.cmake
foreach(library IN LISTS LIBRARIES)
  execute_process(COMMAND ${NM} --undefined-only ${library} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${NM} could not read ${library}")
  endif()
  foreach(marker IN LISTS MARKERS)
    string(FIND "${symbols}" "${marker}" found)
    if(found EQUAL -1)
      message(FATAL_ERROR "${library} is not instrumented: no reference to ${marker}*")
    endif()
  endforeach()
  message(STATUS "${library}: ${MARKERS}")
endforeach()
