#!/usr/bin/env bash
# Runs a 32-bit program under Valgrind, on a 64-bit Debian without a second architecture.
#
#   tools/valgrind32.sh PROGRAM [ARGUMENT...]
#
# Valgrind needs the symbols of the C library, and Debian has none for the one of libc6-i386. So the
# 32-bit architecture's own library and its symbols are unpacked below build/, where the program
# finds them through their own loader. Exit status 99: Valgrind found a fault.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)/build/libc32
lib=$root/lib/i386-linux-gnu
if [ ! -e "$lib/.debug" ]; then
  mkdir -p "$root/apt/lists/partial" "$root/apt/cache/archives/partial"
  apt=(apt-get -qq -o APT::Architectures::=amd64 -o APT::Architectures::=i386
       -o Dir::State::lists="$root/apt/lists" -o Dir::Cache="$root/apt/cache" -o APT::Sandbox::User=)
  "${apt[@]}" update >/dev/null 2>&1 || true  # an index that is of no use here may be missing
  (cd "$root/apt" && "${apt[@]}" download libc6:i386 libc6-dbg:i386 >&2)
  for package in "$root"/apt/*.deb; do dpkg -x "$package" "$root"; done
  mkdir "$lib/.debug.new"
  for file in ld-linux.so.2 libc.so.6 libm.so.6; do
    id=$(readelf -n "$lib/$file" | awk '/Build ID/ {print $3}')
    cp "$root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" "$lib/.debug.new/"
  done
  mv "$lib/.debug.new" "$lib/.debug"
fi
exec valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
  --errors-for-leak-kinds=definite "$lib/ld-linux.so.2" --library-path "$lib:/usr/lib32" "$@"
