#!/usr/bin/env bash
# Builds and tests everything on a bare Debian 12 or 13: the 64-bit library, the 32-bit module, the module in
# GNU Octave, the Python and Octave packages, the library under the address and undefined-behaviour
# sanitizers, and sources and texts (tools/lint.sh).
#
#   ./test.sh --all   also the unoptimised build with every assertion, the thread sanitizer, fuzzing
#                     for a fixed number of runs, the 32-bit programs under Valgrind, and
#                     the documentation site, the Debian package, and where npm is pages in a browser
set -uo pipefail

cd "$(dirname "$0")" || exit 1
all=false
case "${1:-}" in
  --all) all=true ;;
  '') ;;
  *) echo "usage: $0 [--all]" >&2; exit 2 ;;
esac

tools/install_packages.sh packages.txt || exit 1
presets=(default mex32 octave asan)
if $all; then
  tools/install_packages.sh packages-all.txt || exit 1
  presets+=(dev tsan fuzz)
fi

passed=0 failed=0 skipped=0
count() {  # adds up ctest's log
  local total bad none
  total=$(sed -nE 's/.* tests? failed out of ([0-9]+)$/\1/p' "$1" | tail -n 1)
  bad=$(sed -nE 's/^[0-9]+% tests passed, ([0-9]+) tests? failed.*/\1/p' "$1" | tail -n 1)
  none=$(grep -cE '\*\*\*Skipped' "$1")
  passed=$((passed + ${total:-0} - ${bad:-0} - none))
  failed=$((failed + ${bad:-0}))
  skipped=$((skipped + none))
}

check() {  # check NAME COMMAND...: counts it; of a failed one its last words are shown
  if "${@:2}" >"$log" 2>&1; then
    echo "passed: $1"
    passed=$((passed + 1))
  else
    tail -n 30 "$log"
    echo "failed: $1"
    failed=$((failed + 1))
  fi
}

log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in "${presets[@]}"; do
  echo "== $preset"
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset"; } >"$log" 2>&1; then
    grep -E 'error|FAILED|CMake Error' -A 5 "$log" || tail -n 30 "$log"
    echo "building $preset failed"
    failed=$((failed + 1))
    continue
  fi
  ctest --preset "$preset" 2>&1 | tee "$log"
  grep -q 'tests passed' "$log" || failed=$((failed + 1))
  count "$log"
done

if $all; then
  echo "== large arrays"
  if build/default/tests/test_large '[.]'; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
fi

# The module's own host and the tests that stay within a few minutes there.
if $all; then
  echo "== valgrind"
  mex32=build/mex32
  for program in "tests/module_host $mex32/gateway/homodyne.mexglx" tests/test_homodyne \
    "fuzz/random_gateway 500" tests/test_concurrency tests/test_spherical_harmonics; do
    # shellcheck disable=SC2086  # the arguments are words of their own
    check "${program%% *}" tools/valgrind32.sh $mex32/$program
  done
fi

echo "== python"
if $all; then
  CTESSEL_NPM=$(tools/npm_packages.sh)
  export CTESSEL_NPM
  for made in docs/build.sh tools/library_debs.sh tools/python_deb.sh; do
    check "$made" "$made"
  done
fi
if python/test.sh >"$log" 2>&1; then
  grep '^SKIPPED' "$log"
  tail -n 1 "$log"
else
  tail -n 40 "$log"
  failed=$((failed + 1))
fi
python_count() { sed -nE "s/(.* )?([0-9]+) $1.*/\2/p" "$log" | tail -n 1; }
passed=$((passed + $(python_count passed || true) + 0))
skipped=$((skipped + $(python_count skipped || true) + 0))
if $all; then
  check 'what is public' build/python/environment/bin/python tools/interface.py --check build/dev/recon/libcTessel.so
fi

echo "== octave package"
if octave/test.sh >"$log" 2>&1; then
  tail -n 3 "$log"
  passed=$((passed + 1))
else
  tail -n 40 "$log"
  failed=$((failed + 1))
fi

echo "== lint"
lint=(tools/lint.sh)
if $all; then lint+=(--all); fi
"${lint[@]}" 2>&1 | tee "$log"
passed=$((passed + $(grep -c '^passed' "$log")))
failed=$((failed + $(grep -c '^failed' "$log")))
skipped=$((skipped + $(grep -c '^SKIPPED' "$log")))

echo
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
