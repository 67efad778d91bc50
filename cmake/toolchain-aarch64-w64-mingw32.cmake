# Windows Arm64 (native view).
set(KESTREL_MINGW_TRIPLE aarch64-w64-mingw32)
set(KESTREL_IMAGE_MACHINE arm64)
set(KESTREL_WINE_SETUP arm64-wine)
include(${CMAKE_CURRENT_LIST_DIR}/WindowsClang.cmake)
