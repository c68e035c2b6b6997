#!/usr/bin/env bash
# Builds a wheel of the Python package, installs it into an environment under build/, and runs its tests
# there, two files at a time: many wait for processes and sockets. Arguments go to pytest.
set -euo pipefail
cd "$(dirname "$0")/.."
environment=$(tools/python_environment.sh)

# A folder without the sources, so that the installed package is the one that is tested.
mkdir -p build/python/run
tests=$PWD/python/tests
cd build/python/run
export OMP_WAIT_POLICY=passive  # threads of two processes that spin would hold each other up
exec "$environment/bin/python" -m pytest -p no:cacheprovider -q -rfEs --timeout 600 -n 2 --dist loadfile "$tests" "$@"
