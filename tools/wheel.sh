#!/usr/bin/env bash
# Makes the source distribution of the Python package, and from it the wheel, in build/python/dist/. Prints
# the wheel's name.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install_packages.sh python/packages-build.txt >&2
tools/viewer.sh >&2

export PATH=/usr/bin:$PATH # Debian's Python and cmake, whatever else is installed
out=build/python/dist
echo 'Building the Python package: a few minutes' >&2
rm -rf "$out"
mkdir -p "$out"
/usr/bin/python3 -m build --no-isolation --outdir "$out" . >"$out/log" 2>&1 || { cat "$out/log" >&2; exit 1; }
rm "$out/log"
ls "$out"/*.whl
