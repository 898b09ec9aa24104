#!/usr/bin/env bash
# Install into a temporary prefix, then build and run a downstream C program
# against it twice: through find_package(kvxpx) and through pkg-config. Then
# make the Debian packages and check the soname.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/ci-install
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
rm -rf "$build"

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKVX_TESTS=OFF -DKVX_BENCH=OFF -DKVX_EXAMPLES=OFF \
      -DKVX_TOOLS=OFF -DKVX_PYTHON=OFF
cmake --build "$build" --target kvxpx
cmake --install "$build" --prefix "$prefix"
echo "installed:"; (cd "$prefix" && find . \( -type f -o -type l \) | sort)

soname=$(objdump -p "$prefix"/lib*/libkvxpx.so.3.1.4 | awk '/SONAME/ {print $2}')
[ "$soname" = libkvxpx.so.3 ] || { echo "soname is '$soname', not libkvxpx.so.3"; exit 1; }
echo "soname $soname"

echo "== downstream through find_package"
cmake -S examples/downstream -B "$build/downstream" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$build/downstream"
"$build/downstream/hello"

echo "== downstream through pkg-config"
pc_dir=$(dirname "$(find "$prefix" -name kvxpx.pc)")
export PKG_CONFIG_PATH="$pc_dir"
pkg-config --modversion kvxpx
# shellcheck disable=SC2046
cc -std=c99 -o "$build/hello-pc" examples/hello.c $(pkg-config --cflags --libs kvxpx)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir kvxpx)" "$build/hello-pc"

echo "== Debian packages"
(cd "$build" && cpack -G DEB >/dev/null)
for deb in "$build"/*.deb; do
  echo "$(basename "$deb"):"; dpkg-deb -c "$deb" | awk '{print "  " $6 $7 $8}'
done
