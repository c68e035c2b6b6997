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

for text in LICENSE NOTICE; do
  cmp "$source/$text" "$tree"/share/doc/*/$text
done

library=$(find "$tree" -name 'libcTessel.so')
diff <("$source/tests/header_routines.sh" "$tree/include/cTessel.h" "$tree/include/ctessel.hpp") \
  <(nm -DC --defined-only "$library" | cut -d' ' -f3- | sed 's/(.*//' | grep -v '^ctessel::[A-Z]' | sort -u) ||
  { echo 'the shared library shows (>) or misses (<) routines'; exit 1; }

echo '== find_package'
cmake -S "$source/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$tree" \
  -DWANTED_VERSION="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >"$work/log" &&
  cmake --build "$work/build" >>"$work/log" || { cat "$work/log"; exit 1; }
for program in with_cTessel with_static; do "$work/build/$program"; done
ldd "$work/build/with_cTessel" | grep -q "$tree.*libcTessel.so.0" ||
  { echo 'not linked with the installed shared library'; exit 1; }
if cmake -S "$source/tests/consumer" -B "$work/build" -DWANTED_VERSION=99 >/dev/null 2>&1; then
  echo 'a version that is not installed was found'
  exit 1
fi

echo '== add_subdirectory'
cmake -S "$source/tests/consumer" -B "$work/included" -G Ninja -DCTESSEL_SOURCES="$source" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
if grep '^CTESSEL_[A-Z]*:' "$work/included/CMakeCache.txt" | grep -v CTESSEL_SOURCES; then
  echo 'options of the included project are among those of the other'
  exit 1
fi

# Wider vectors than the library's, and functions that are merged with the library's unless inlined.
PKG_CONFIG_PATH=$(dirname "$library")/pkgconfig LD_LIBRARY_PATH=$(dirname "$library")
export PKG_CONFIG_PATH LD_LIBRARY_PATH
wide=$(grep -q -m 1 avx2 /proc/cpuinfo && echo -mavx2 || true)
kinds=("-O0 $wide" '-O2 -march=native' -O2)
for k in "${!kinds[@]}"; do
  # shellcheck disable=SC2046,SC2086
  $cxx -std=c++17 $flags ${kinds[k]} -c "$source/tests/consumer/main.cpp" -o "$work/$k.o" \
    $(pkg-config --cflags cTessel)
done
for linking in '' --static; do
  [ -z "$linking" ] || rm "$(dirname "$library")"/libcTessel.so*
  for k in "${!kinds[@]}"; do
    echo "== pkg-config $linking, ${kinds[k]}"
    # shellcheck disable=SC2046,SC2086
    $cxx $flags "$work/$k.o" -o "$work/program" $(pkg-config $linking --libs cTessel)
    "$work/program"
  done
done
