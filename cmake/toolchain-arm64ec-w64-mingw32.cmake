# Windows Arm64EC (the view x64 processes load).
set(KESTREL_MINGW_TRIPLE arm64ec-w64-mingw32)
# Built only as the Arm64EC half of the ARM64X image.
set(KESTREL_IMAGE_MACHINE arm64x)
include(${CMAKE_CURRENT_LIST_DIR}/WindowsOnArm.cmake)
