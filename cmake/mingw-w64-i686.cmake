# Cross-build for 32-bit Windows with Debian's mingw-w64 (posix threads).
set(CMAKE_SYSTEM_PROCESSOR x86)
set(TARN_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
