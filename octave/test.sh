#!/usr/bin/env bash
# Makes the Octave package, installs it into a fresh folder below build/ with nothing else in sight, and
# tests it there. Measured data come from CTESSEL_DATA, or ../shared/data beside the checkout.
set -euo pipefail
cd "$(dirname "$0")/.."

# The package has a recipe of its own: it must not fall behind the library's flags.
for flag in $(grep -oE ' -f[a-z-]+(=[a-z]+)?' cmake/CompileOptions.cmake | sort -u); do
  if ! grep -q -e "$flag" octave/src/Makefile; then
    echo "octave/src/Makefile lacks $flag of cmake/CompileOptions.cmake" >&2
    exit 1
  fi
done

out=$PWD/build/octave-package
rm -rf "$out"
mkdir -p "$out/installed" "$out/home"
tarball=$(octave/package.sh "$out")
tar -xzOf "$tarball" --wildcards '*/COPYING' | grep -q 'Arm Limited' || { echo 'no NOTICE' >&2; exit 1; }

octave/index_entry.sh "$tarball" https://example.org/ | grep -q "^  sha256: \"$(sha256sum <"$tarball" | cut -d ' ' -f 1)\"" ||
  { echo 'the entry for the index has another sum than the tarball' >&2; exit 1; }

export CTESSEL_DATA=${CTESSEL_DATA:-$PWD/../shared/data}
HOME=$out/home octave-cli --norc --no-history --quiet --path "$PWD/octave" --path "$PWD/demo" \
  --eval "test_package('$tarball', '$out/installed')"
