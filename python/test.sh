#!/usr/bin/env bash
# Builds a wheel of the Python package, installs it into an environment under build/, and runs its tests
# and its example there. Arguments go to pytest.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install_packages.sh packages.txt
tools/install_packages.sh python/packages.txt

export PATH=/usr/bin:$PATH # Debian's Python, cmake and ninja, whatever else is installed
environment=build/python/environment
[ -x $environment/bin/python ] || /usr/bin/python3 -m venv --system-site-packages $environment
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! $environment/bin/python -m pip install --no-build-isolation --no-deps --no-index \
    --force-reinstall ./python >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
# A folder without the sources, so that the installed package is the one that is tested.
mkdir -p build/python/run
tests=$PWD/python/tests environment=$PWD/$environment
cd build/python/run
exec "$environment/bin/python" -m pytest -p no:cacheprovider -q -rs "$tests" "$@"
