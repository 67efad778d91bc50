# Applied to everything in the native sanitizer presets, GoogleTest included, so that
# instrumentation is consistent across the test binaries.
if(KESTREL_SANITIZE STREQUAL "address")
  set(flags -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(KESTREL_SANITIZE STREQUAL "thread")
  set(flags -fsanitize=thread -fno-omit-frame-pointer)
else()
  message(FATAL_ERROR "KESTREL_SANITIZE must be address or thread, not ${KESTREL_SANITIZE}")
endif()
add_compile_options(${flags})
add_link_options(${flags})
