#!/usr/bin/env bash
# Joins object files into one in which nothing can be seen but the routines of cTessel.h.
#
#   one_object.sh OUT OBJCOPY OBJECT... -- COMPILER [FLAG...]
set -euo pipefail
out=$1 objcopy=$2
shift 2
objects=()
while [ "$1" != -- ]; do objects+=("$1"); shift; done
shift

mkdir -p "$(dirname "$out")"
# Templates stay in groups that a linker drops for another file's of the same name.
"$@" -fno-sanitize=all -r -nostdlib -Wl,--force-group-allocation "${objects[@]}" -o "$out.new"
# The rest has hidden visibility, or is weak as templates are.
readelf -sW "$out.new" |
  awk '$5 == "GLOBAL" && $6 == "DEFAULT" && $7 != "UND" { print $8 }' | sort -u >"$out.symbols"
"$objcopy" --keep-global-symbols="$out.symbols" "$out.new" "$out"
rm "$out.new" "$out.symbols"
