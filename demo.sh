#!/usr/bin/env bash
# From a bare Debian 12 or 13 to pictures in demo-output/: homodyne reconstruction in GNU Octave, SENSE, and
# from a raw data file to NIfTI images.
#
#   ./demo.sh         a built-in phantom
#   ./demo.sh FILE    measured, fully sampled k-space: a MATLAB .mat file or a BART .cfl/.hdr pair
#                     (SENSE for pairs with one slice and several coils)
set -euo pipefail

if [ $# -gt 1 ] || [ "${1-file}" = '' ]; then
  echo "usage: ./demo.sh [FILE]" >&2
  exit 2
fi
[ $# -eq 0 ] || set -- "$(realpath -m -- "$1")"
cd "$(dirname "$0")"
tools/install_packages.sh packages.txt

log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { cmake --preset octave && cmake --build --preset octave --target homodyne &&
       cmake --preset default && cmake --build --preset default --target example_sense; } \
    >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi

mkdir -p demo-output
octave-cli --quiet --norc --no-history --path build/octave/gateway --path demo demo/main.m \
  demo-output "$@"

# SENSE: fully sampled, then reconstructed from every second line, about every third, and two of five.
sense() {  # NAME [k-space]
  echo "$1: SENSE along y"
  build/default/examples/example_sense demo-output "${@:2}" | sed 's/^/  /'
  mv demo-output/sense.png "demo-output/$1_sense.png"
}
# From file to file: six slices, every second line, calibration lines and a noise scan.
recon() {
  local environment
  environment=$(tools/python_environment.sh)
  "$environment/bin/ctessel" phantom noise --slices 6 --noise 0.03 -o demo-output/scan.h5
  echo "demo-output/scan.h5: ctessel recon"
  "$environment/bin/ctessel" info demo-output/scan.h5 | sed -n '/would:/,$p' | tail -n +2
  "$environment/bin/ctessel" recon demo-output/scan.h5 -o demo-output/recon.nii.gz \
    --preview demo-output/recon.png
  echo "  demo-output/recon.nii.gz, recon.json, recon.png"
}
if [ $# -eq 0 ]; then
  sense phantom
  recon
else
  name=${1%.*}
  if [ -f "$name.hdr" ] && [ -f "$name.cfl" ] &&
      sed -n 2p "$name.hdr" | awk '{ exit !($3 == 1 && $4 > 1) }'; then
    sense "$(basename "$name" | tr -c 'A-Za-z0-9_.\n-' _)" "$name"
  fi
fi
