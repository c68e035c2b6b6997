#!/usr/bin/env bash
# Runs a 32-bit program under Valgrind, on a 64-bit Debian without a second architecture.
#
#   tools/valgrind32.sh PROGRAM [ARGUMENT...]
#
# Valgrind needs the symbols of the C library, and Debian has none for the one of libc6-i386. So the
# 32-bit architecture's own library and its symbols are unpacked below build/, where the program
# finds them through their own loader. Exit status 99: Valgrind found a fault.
set -euo pipefail

root=$("$(dirname "$0")/package32.sh" libc6 libc6-dbg)
lib=$root/lib/i386-linux-gnu
[ -e "$lib" ] || lib=$root/usr/lib/i386-linux-gnu  # since Debian 13
if [ ! -e "$lib/.debug" ]; then
  rm -rf "$lib/.debug.new"
  mkdir "$lib/.debug.new"
  for file in ld-linux.so.2 libc.so.6 libm.so.6; do
    id=$(readelf -n "$lib/$file" | awk '/Build ID/ {print $3}')
    cp "$root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" "$lib/.debug.new/"
  done
  mv "$lib/.debug.new" "$lib/.debug"
fi
exec valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
  --errors-for-leak-kinds=definite "$lib/ld-linux.so.2" --library-path "$lib:/usr/lib32" "$@"
