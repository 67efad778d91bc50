# Windows Arm64EC (the view x64 processes load): the Arm64EC half of the ARM64X image, and the test
# suites as Arm64EC programs, run under an Arm64EC-capable Wine.
set(KESTREL_MINGW_TRIPLE arm64ec-w64-mingw32)
set(KESTREL_IMAGE_MACHINE arm64ec)
set(KESTREL_WINE_SETUP arm64ec-wine)
include(${CMAKE_CURRENT_LIST_DIR}/WindowsClang.cmake)
