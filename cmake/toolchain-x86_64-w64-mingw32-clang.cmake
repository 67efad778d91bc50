# Windows x64 with clang, Debian's mingw-w64 runtime and the posix-thread GCC 12 libstdc++, linked by lld.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(KESTREL_MINGW_TRIPLE x86_64-w64-mingw32)
set(KESTREL_MINGW_SYSROOT /usr/${KESTREL_MINGW_TRIPLE})
# The posix variant: the win32 one lacks std::thread and friends, and clang would otherwise pick
# whichever it finds first, or the Linux host headers.
set(KESTREL_MINGW_GCC_DIR /usr/lib/gcc/${KESTREL_MINGW_TRIPLE}/12-posix)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_RC_COMPILER ${KESTREL_MINGW_TRIPLE}-windres)
set(CMAKE_C_COMPILER_TARGET ${KESTREL_MINGW_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${KESTREL_MINGW_TRIPLE})
set(CMAKE_SYSROOT ${KESTREL_MINGW_SYSROOT})

include(${CMAKE_CURRENT_LIST_DIR}/WindowsDebugInfo.cmake)
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc++ -isystem ${KESTREL_MINGW_GCC_DIR}/include/c++ -isystem ${KESTREL_MINGW_GCC_DIR}/include/c++/${KESTREL_MINGW_TRIPLE} -fms-extensions ${KESTREL_DEBUG_INFO_FLAGS}")
set(CMAKE_C_FLAGS_INIT "-fms-extensions ${KESTREL_DEBUG_INFO_FLAGS}")
# Static runtime: nothing but system DLLs next to Kestrel.dll. libstdc++'s posix threads need
# winpthread after it.
set(KESTREL_LINK_INIT "-fuse-ld=lld -static -Wno-unused-command-line-argument -L${KESTREL_MINGW_GCC_DIR} ${KESTREL_PDB_LINK_FLAGS}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${KESTREL_LINK_INIT}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${KESTREL_LINK_INIT}")
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,-Bstatic -lstdc++ -lpthread")

# What the image check reads the built DLL with, and what it expects.
set(KESTREL_LLVM_TOOLS /usr/bin/)
set(KESTREL_IMAGE_MACHINE x64)

set(CMAKE_FIND_ROOT_PATH ${KESTREL_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

