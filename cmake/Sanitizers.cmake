# Instrumentation for the native sanitizer and fuzzing builds. Included before any target, so
# that it reaches everything built here, the libraries included: ASan/UBSan and TSan then check
# the library's own code, and libFuzzer gets its coverage from the parsers, not only from the
# harness. (tests/CheckInstrumented.cmake fails when a library is built without it.)
if(NOT KESTREL_SANITIZE AND NOT KESTREL_FUZZ)
  return()
endif()
set(flags -fno-omit-frame-pointer)
if(KESTREL_SANITIZE STREQUAL "address")
  list(APPEND flags -fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(KESTREL_SANITIZE STREQUAL "thread")
  list(APPEND flags -fsanitize=thread)
elseif(KESTREL_SANITIZE)
  message(FATAL_ERROR "KESTREL_SANITIZE must be address or thread, not ${KESTREL_SANITIZE}")
endif()
add_compile_options(${flags})
add_link_options(${flags})
if(KESTREL_FUZZ)
  # Coverage for libFuzzer everywhere; only the fuzzers link libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
