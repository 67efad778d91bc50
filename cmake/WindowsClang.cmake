# Windows with clang 22, the mingw-w64 UCRT runtime, libc++ and libunwind, linked statically by
# lld: the toolchain scripts/toolchain builds from Debian's sources, one root for x86_64, aarch64
# and arm64ec. Every tool runs inside that root through the links in cmake/tools/. Included by the
# toolchain file of each triple, which sets KESTREL_MINGW_TRIPLE and KESTREL_IMAGE_MACHINE first,
# and, for the Arm triples, the set-up script of the Wine its programs run under
# (KESTREL_WINE_SETUP); x64 programs run under this machine's Wine.
set(CMAKE_SYSTEM_NAME Windows)
if(KESTREL_MINGW_TRIPLE MATCHES "^x86_64")
  set(CMAKE_SYSTEM_PROCESSOR AMD64)
else()
  set(CMAKE_SYSTEM_PROCESSOR ARM64)
endif()
# Carried into CMake's compiler checks, which run this file again in their own projects.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_MINGW_TRIPLE KESTREL_IMAGE_MACHINE KESTREL_WINE_SETUP)

set(tools ${CMAKE_CURRENT_LIST_DIR}/tools)
set(CMAKE_C_COMPILER ${tools}/${KESTREL_MINGW_TRIPLE}-clang)
set(CMAKE_CXX_COMPILER ${tools}/${KESTREL_MINGW_TRIPLE}-clang++)
set(CMAKE_RC_COMPILER ${tools}/${KESTREL_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${tools}/llvm-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${tools}/llvm-ranlib CACHE FILEPATH "")
set(CMAKE_NM ${tools}/llvm-nm CACHE FILEPATH "")
set(CMAKE_OBJDUMP ${tools}/llvm-objdump CACHE FILEPATH "")
# What the image checks read the built images with.
set(KESTREL_LLVM_TOOLS ${tools}/)

include(${CMAKE_CURRENT_LIST_DIR}/WindowsDebugInfo.cmake)
set(CMAKE_C_FLAGS_INIT "-fms-extensions ${KESTREL_DEBUG_INFO_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "-fms-extensions ${KESTREL_DEBUG_INFO_FLAGS}")
set(CMAKE_ASM_FLAGS_INIT "${KESTREL_DEBUG_INFO_FLAGS}")
# Static runtime: nothing but system DLLs and the UCRT next to Kestrel.dll.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static ${KESTREL_PDB_LINK_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static ${KESTREL_PDB_LINK_FLAGS}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
