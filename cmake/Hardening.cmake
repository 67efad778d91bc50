# The mitigations every Windows image of the project carries, read back from each image by
# tests/image/check_hardening.py. The module is mapped into hardened processes too, and Windows
# refuses a module without them there:
#  - Control Flow Guard: every indirect call goes through the guard check (or, on x64, dispatch),
#    and every function whose address escapes is listed in the image's guard table;
#  - stack protection: a canary in every frame that holds an array or an address-taken local; the
#    C runtime draws the guard value from the system's random source at load;
#  - x64: compatible with hardware-enforced shadow stacks (CETCOMPAT).
# lld sets ASLR with high-entropy addresses and NX by default. The compiler flags stay off the link
# line: there clang's mingw driver would ask for a libssp that mingw-w64's runtime replaces.
if(WIN32)
  add_compile_options("$<$<COMPILE_LANGUAGE:C,CXX>:-mguard=cf;-fstack-protector-strong>")
  add_link_options(LINKER:--guard-cf)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "AMD64")
    add_link_options(LINKER:--Xlink=-cetcompat)
  endif()
endif()
