# Cross build for 64-bit Windows with mingw-w64 (Debian: g++-mingw-w64-x86-64).
# Programs run under wine (cmake/wine-run.sh), so ctest works on Linux.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(KVX_MINGW_TRIPLET x86_64-w64-mingw32)
# The posix thread model: GoogleTest needs std::mutex.
set(KVX_MINGW_THREADS posix)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
