#!/usr/bin/env bash
# The tests under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
rm -rf build/asan
cmake --preset asan && cmake --build --preset asan && ctest --preset asan
