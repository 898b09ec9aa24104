#!/usr/bin/env bash
# 32-bit x86 Linux (-m32): 4-byte pointers, x87 long double and the record
# layouts of the library's home platform; the whole test suite, with
# GoogleTest built from Debian's sources for -m32.
set -euo pipefail
cd "$(dirname "$0")/.."
rm -rf build/m32
cmake --preset m32 && cmake --build --preset m32 && ctest --preset m32
