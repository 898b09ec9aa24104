# Cross build for 32-bit x86 Windows with mingw-w64 (Debian: g++-mingw-w64-i686):
# the kvxpx.dll of the library's home platform.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(KVX_MINGW_TRIPLET i686-w64-mingw32)
# The win32 thread model: nothing of winpthread in the DLL.
set(KVX_MINGW_THREADS win32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
