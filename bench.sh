#!/usr/bin/env bash
# Benchmarks: every routine beside the machine's limit, its naive version, NumPy/SciPy, GNU Octave
# and BART; growth of cost; peak memory. Leaves report.md, report.json and plots in bench-output/.
#
#   ./bench.sh            about eight minutes on two cores
#   ./bench.sh --quick    small data and few turns, a minute: shows that everything runs, not how fast
set -euo pipefail

cd "$(dirname "$0")"
case "${1:-}" in
  --quick) export CTESSEL_QUICK=1 ;;
  '') ;;
  *) echo "usage: $0 [--quick]" >&2; exit 2 ;;
esac

tools/install_packages.sh bench/packages.txt
export PATH=/usr/bin:$PATH  # Debian's Python, Octave and BART, whatever else is installed
build=build/bench output=bench-output log=$(mktemp)
trap 'rm -f "$log"' EXIT

echo "Building"
if ! { cmake --preset bench -DCTESSEL_PYTHON=ON -DPYTHON_EXECUTABLE=/usr/bin/python3 &&
       cmake --build --preset bench; } >"$log" 2>&1; then
  grep -E 'error|FAILED|CMake Error' -A 5 "$log" >&2 || tail -n 30 "$log" >&2
  echo "Building the benchmarks failed (see above)." >&2
  exit 1
fi
# The Python package as it would be installed: the checkout's files beside the built module.
mkdir -p $build/package/ctessel $output
ln -sf "$PWD"/python/ctessel/*.py "$PWD"/$build/python/_*.so $build/package/ctessel/

run() {  # run WHAT FILE COMMAND...
  echo "Measuring: $1"
  if ! "${@:3}" >"$2" 2>"$log"; then
    tail -n 5 "$log" >&2
    echo "Measuring $1 failed (see above)." >&2
    exit 1
  fi
}
run "limits, naive versions, memory and growth" $build/kernels.json \
  env OMP_WAIT_POLICY=passive $build/bench/benchmarks --benchmark_format=json
# Freed memory is kept, so that peers that return new arrays do not pay for fresh pages.
run "peers" $build/peers.json env OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MALLOC_MMAP_MAX_=0 \
  MALLOC_TRIM_THRESHOLD_=100000000000 MALLOC_TOP_PAD_=268435456 /usr/bin/python3 bench/peers.py $build
run "errors of reconstructions" /dev/null /usr/bin/python3 bench/quality.py $build $output
/usr/bin/python3 bench/report.py $build $output
