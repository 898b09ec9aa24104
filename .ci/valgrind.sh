#!/usr/bin/env bash
# CI: the unit tests under valgrind memcheck with the plain kernel path forced
# (KVX_CPU=plain), so that valgrind runs the code it can see: it hides
# AVX-512 from the processor check. Uses the dev preset (optimised, with debug
# information, GCC's DWARF that valgrind reads).
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v valgrind >/dev/null; then
  echo "installing: valgrind"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq valgrind
fi

cmake --preset dev
cmake --build --preset dev
status=0
for test in build/dev/tests/test_*; do
  [ -x "$test" ] || continue
  start=$(date +%s)
  if KVX_CPU=plain valgrind -q --error-exitcode=9 --leak-check=full --errors-for-leak-kinds=definite \
       "$test" --gtest_brief=1 > "$test.valgrind.log" 2>&1; then
    echo "$(basename "$test"): clean ($(( $(date +%s) - start )) s)"
  else
    echo "$(basename "$test"): FAILED, see $test.valgrind.log"
    status=1
  fi
done
exit $status
