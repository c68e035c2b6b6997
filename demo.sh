#!/usr/bin/env bash
# Homodyne reconstruction in GNU Octave, from a bare Debian 12 to pictures in demo-output/.
#
#   ./demo.sh         a built-in phantom
#   ./demo.sh FILE    measured, fully sampled k-space: a MATLAB .mat file or a BART .cfl/.hdr pair
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
if ! { cmake --preset octave && cmake --build --preset octave --target homodyne; } >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi

mkdir -p demo-output
octave-cli --quiet --norc --no-history --path build/octave/gateway --path demo demo/main.m \
  demo-output "$@"
