# Fails the build when the hook library's objects use emulated thread-local storage. The hook
# handlers need native TLS: a thread's first touch of its guard must neither allocate nor call,
# and the TLS-array test before it only means something for native TLS.
#   cmake -DNM=<llvm-nm> -DLIBRARY=<kestrel_lib archive> -P CheckNativeTls.cmake
execute_process(COMMAND ${NM} ${LIBRARY} OUTPUT_VARIABLE symbols ERROR_VARIABLE errors RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} could not read ${LIBRARY}: ${errors}")
endif()
if(NOT symbols MATCHES "threadHookGuard")
  message(FATAL_ERROR "${LIBRARY} does not define the hook guard; nothing to check")
endif()
if(symbols MATCHES "__emutls")
  message(FATAL_ERROR "${LIBRARY} uses emulated thread-local storage (__emutls symbols); the hook guard needs "
                      "native TLS: compile with -fno-emulated-tls")
endif()
