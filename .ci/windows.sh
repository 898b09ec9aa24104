#!/usr/bin/env bash
# Windows: the 32-bit kvxpx.dll (library only) with its export table checked
# against the header in both directions and its imports against KERNEL32,
# USER32 and the C runtime, packed as a zip; then the 64-bit Windows library
# and the whole test suite, run under wine in a private prefix.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== kvxpx.dll, 32-bit x86"
rm -rf build/win32
cmake --preset win32 && cmake --build --preset win32
cmake -DLIB=build/win32/bin/kvxpx.dll -DHEADER=include/kvxpx.h -DOBJDUMP=i686-w64-mingw32-objdump \
      -DDEF=build/win32/kvxpx.def -P cmake/check_dll.cmake
(cd build/win32 && cpack -G ZIP >/dev/null)
cmake -E tar tf build/win32/kvxpx-*.zip | sed "s/^/  /"

echo "== 64-bit Windows tests under wine"
rm -rf build/win64
if [ -z "${WINEPREFIX:-}" ]; then
  # A private prefix, removed afterwards with its wine server.
  WINEPREFIX=$(mktemp -d)/wine
  trap 'wineserver -k >/dev/null 2>&1 || true; rm -rf "$(dirname "$WINEPREFIX")"' EXIT
fi
export WINEPREFIX WINEDEBUG=-all
timeout 300 wineboot -i >/dev/null 2>&1 || echo "wineboot did not finish; the tests make the prefix on first use"
cmake --preset win64 && cmake --build --preset win64
ctest --preset win64 --timeout 300
