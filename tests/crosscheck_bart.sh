#!/usr/bin/env bash
# The same arrays through this library and through BART: shifts and padding to the bit, sums of
# squares to rounding.
#
#   crosscheck_bart.sh PATH/crosscheck_arrays
set -eu
ours=$1
command -v bart >/dev/null || { echo 'SKIPPED: bart is not installed'; exit 77; }
cd "$(mktemp -d)"
trap 'rm -rf "$PWD"' EXIT
status=0
check() {  # what, command that compares
  if "${@:2}" >/dev/null; then echo "agrees: $1"; else echo "DIFFERS: $1"; status=1; fi
}

"$ours" random even 8 6 4 3 2
"$ours" random odd 7 5 9 4
for data in even odd; do
  for dim in 1 2 3; do
    "$ours" shift $dim $data a && bart fftshift $((1 << (dim - 1))) $data b
    check "fftshift $data $dim" cmp a.cfl b.cfl
    "$ours" ishift $dim $data a && bart fftshift -b $((1 << (dim - 1))) $data b
    check "ifftshift $data $dim" cmp a.cfl b.cfl
  done
  "$ours" sos 4 $data a && bart rss 8 $data b
  check "rss $data" bart nrmse -t 1e-6 a b
done

# BART puts the centre floor(N / 2) of one array on that of the other, so that the spare zero goes in
# front for an odd extent in an even one and behind for an even extent in an odd one. Ours is always
# in front: the second pair of cases is one sample apart.
"$ours" pad 12 6 6 even a && bart resize -c 0 12 1 6 2 6 even b
check 'resize even to even' cmp a.cfl b.cfl
"$ours" pad 8 9 12 odd a && bart resize -c 0 8 1 9 2 12 odd b
check 'resize odd to even and odd' cmp a.cfl b.cfl
"$ours" pad 9 6 4 even a && bart resize -c 0 9 even b && bart circshift 0 1 b c
check 'resize even to odd, moved by one' cmp a.cfl c.cfl
if cmp -s a.cfl b.cfl; then
  echo 'DIFFERS: even to odd is expected to be one sample apart'
  status=1
fi
exit $status
