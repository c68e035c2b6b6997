#!/usr/bin/env bash
# Installs the Python package from this folder into an environment under build/, and prints its folder.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install_packages.sh packages.txt >&2
for list in python/packages-build.txt python/packages.txt; do tools/install_packages.sh $list; done >&2
tools/viewer.sh

export PATH=/usr/bin:$PATH # Debian's Python, cmake and ninja, whatever else is installed
environment=$PWD/build/python/environment
[ -x "$environment/bin/python" ] || /usr/bin/python3 -m venv --system-site-packages "$environment"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! "$environment/bin/python" -m pip install --no-build-isolation --no-deps --no-index \
    --force-reinstall . >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
echo "$environment"
