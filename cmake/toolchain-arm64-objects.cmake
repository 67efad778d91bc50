# Compile-only check for 64-bit Arm Windows (ARM64, and ARM64EC where mingw-w64 10's headers allow).
# Nothing is linked: no Arm64 runtime exists here. KESTREL_ARM64_TRIPLE selects the target.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ARM64)
set(KESTREL_MINGW_SYSROOT /usr/x86_64-w64-mingw32)
set(KESTREL_MINGW_GCC_DIR /usr/lib/gcc/x86_64-w64-mingw32/12-posix)
if(NOT KESTREL_ARM64_TRIPLE)
  set(KESTREL_ARM64_TRIPLE aarch64-w64-mingw32)
endif()

set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_C_COMPILER_TARGET ${KESTREL_ARM64_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${KESTREL_ARM64_TRIPLE})
set(CMAKE_SYSROOT ${KESTREL_MINGW_SYSROOT})
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
# libstdc++'s configuration header is the x86_64 one; its contents are architecture-neutral
# for what we use (threads, atomics, wchar_t of 16 bits).
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc++ -isystem ${KESTREL_MINGW_GCC_DIR}/include/c++ -isystem ${KESTREL_MINGW_GCC_DIR}/include/c++/x86_64-w64-mingw32 -fms-extensions")
set(CMAKE_C_FLAGS_INIT "-fms-extensions")
if(KESTREL_ARM64_TRIPLE MATCHES "^arm64ec")
  # clang defines __x86_64__ for ARM64EC (x64 source compatibility), so libstdc++'s spin-wait
  # asks for the x86 pause builtin; give it the Arm yield hint it stands for.
  string(APPEND CMAKE_CXX_FLAGS_INIT " \"-D__builtin_ia32_pause()=__builtin_arm_yield()\"")
endif()
set(CMAKE_FIND_ROOT_PATH ${KESTREL_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
