# Windows x64.
set(KESTREL_MINGW_TRIPLE x86_64-w64-mingw32)
set(KESTREL_IMAGE_MACHINE x64)
include(${CMAKE_CURRENT_LIST_DIR}/WindowsClang.cmake)
