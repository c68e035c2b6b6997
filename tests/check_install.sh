#!/usr/bin/env bash
# The installed tree, moved to another place: what is in it, what the shared library shows, and a
# program of someone else's that finds it through CMake and through pkg-config.
#
#   check_install.sh BUILD_FOLDER SOURCE_FOLDER CXX "CXX_FLAGS"
set -eu
build=$1 source=$2 cxx=$3 flags=${4-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$tree"
headers=$(LC_ALL=C ls -m "$tree/include")
[ "$headers" = 'cTessel.h, ctessel.hpp' ] || { echo "headers: $headers"; exit 1; }

library=$(find "$tree" -name 'libcTessel.so')
diff <("$source/tests/header_routines.sh" "$tree/include/cTessel.h" "$tree/include/ctessel.hpp") \
  <(nm -DC --defined-only "$library" | cut -d' ' -f3- | sed 's/(.*//' | grep -v '^ctessel::[A-Z]' | sort -u) ||
  { echo 'the shared library shows (>) or misses (<) routines'; exit 1; }

echo '== find_package'
wide=$(grep -q -m 1 avx2 /proc/cpuinfo && echo -mavx2 || true)  # wider vectors than the library's
cmake -S "$source/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$tree" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags $wide" >"$work/log" &&
  cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
"$work/build/with_cTessel" && "$work/build/with_static"
ldd "$work/build/with_cTessel" | grep -q "$tree.*libcTessel.so.0" ||
  { echo 'not linked with the installed shared library'; exit 1; }
if cmake -S "$source/tests/consumer" -B "$work/build" -DWANTED_VERSION=99 >/dev/null 2>&1; then
  echo 'a version that is not installed was found'
  exit 1
fi

echo '== pkg-config'
PKG_CONFIG_PATH=$(dirname "$library")/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046,SC2086
$cxx -std=c++17 $flags "$source/tests/consumer/main.cpp" -o "$work/shared" \
  $(pkg-config --cflags --libs cTessel)
LD_LIBRARY_PATH=$(dirname "$library") "$work/shared"
rm "$(dirname "$library")"/libcTessel.so*
# shellcheck disable=SC2046,SC2086
$cxx -std=c++17 $flags "$source/tests/consumer/main.cpp" -o "$work/static" \
  $(pkg-config --static --cflags --libs cTessel)
"$work/static"
