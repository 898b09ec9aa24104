#!/usr/bin/env bash
# CI: build the libFuzzer targets (tests/fuzz) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and run each one for a bounded time on its seed
# corpus (KVX_FUZZ_SECONDS, default 25). A finding stops the script with the
# reproducing input written to build/fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v clang++ >/dev/null; then
  echo "installing: clang"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq clang
fi

secs=${KVX_FUZZ_SECONDS:-25}
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKVX_TESTS=OFF -DKVX_BENCH=OFF -DKVX_EXAMPLES=OFF -DKVX_TOOLS=OFF -DKVX_PYTHON=OFF -DKVX_INSTALL=OFF \
  -DKVX_SANITIZE=ON -DKVX_FUZZ=ON -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link
# Only the targets: they link the static archive (a sanitized shared library
# built by clang would leave the sanitizer runtime unresolved).
targets=()
for src in tests/fuzz/fuzz_*.cpp; do targets+=("$(basename "$src" .cpp)"); done
cmake --build build/fuzz --target "${targets[@]}"

mkdir -p build/fuzz/findings
for target in build/fuzz/tests/fuzz/fuzz_*; do
  family=$(basename "$target"); family=${family#fuzz_}
  echo "== fuzz_$family: ${secs} s"
  mkdir -p "build/fuzz/corpus/$family"
  # New inputs go to the build tree; the committed seeds are only read.
  log="build/fuzz/findings/$family.log"
  status=0
  "$target" -max_total_time="$secs" -rss_limit_mb=2048 -malloc_limit_mb=100000 -print_final_stats=1 \
    -artifact_prefix="build/fuzz/findings/$family-" "build/fuzz/corpus/$family" "tests/fuzz/corpus/$family" \
    > "$log" 2>&1 || status=$?
  grep -E "^Done|^stat::number_of_executed_units|SUMMARY|ERROR|runtime error|kvx fuzz" "$log" || true
  if [ "$status" -ne 0 ]; then
    echo "fuzz_$family found a fault (exit $status); see $log"
    exit 1
  fi
done
echo "fuzz done"
