#!/usr/bin/env bash
# The README's test command on a clean Release build, then the benchmarks built (not run).
set -euo pipefail
cd "$(dirname "$0")/.."
rm -rf build/release
cmake --preset release && cmake --build --preset release && ctest --preset release
cmake --build --preset release --target kvx_bench
