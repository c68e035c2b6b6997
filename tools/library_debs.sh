#!/usr/bin/env bash
# Makes the Debian packages of the C++ library and prints their names: one with the shared library, named as
# its SONAME is, and libctessel-dev.
#
#   tools/library_debs.sh                       from a build of their own, into build/debs/
#   tools/library_debs.sh BUILD_FOLDER FOLDER   from another build, into another folder
set -euo pipefail
[ $# -eq 2 ] || [ $# -eq 0 ] || { echo "usage: $0 [BUILD_FOLDER FOLDER]" >&2; exit 2; }
if [ $# -eq 2 ]; then
  build=$(realpath "$1") out=$(realpath "$2")
  cd "$(dirname "$0")/.."
else
  cd "$(dirname "$0")/.."
  tools/install_packages.sh cmake/packages.txt >&2
  build=$PWD/build/deb out=$PWD/build/debs
  { cmake --preset deb && cmake --build --preset deb; } >&2
fi
. tools/deb.sh
umask 022

components() {  # ROOT COMPONENT: what CMake installs for it
  cmake --install "$build" --strip --prefix "$1/usr" --component "$2" >/dev/null
}

soname=$(objdump -p "$build/recon/libcTessel.so" | sed -nE 's/^ *SONAME *//p')
abi=${soname##*.so.}
runtime=libctessel$abi
root=$(tree "$runtime")
components "$root" runtime
echo "libcTessel $abi $runtime (>= $version)" >"$root/DEBIAN/shlibs"
echo 'activate-noawait ldconfig' >"$root/DEBIAN/triggers"
library=$(cd "$root" && find usr -name "$soname.*" -type f)
package "$runtime" libs "$(libraries "$runtime" "$library")" <<'FIELDS'
Description: reconstruction kernels for magnetic-resonance imaging
 Plain C++ functions over float arrays: circular shifts, zero padding, filters,
 partial Fourier, SENSE, sensitivity maps, coil combination and interpolation.
 Any number of threads gives the same bits.
 .
 Programs that are linked with the library need this package alone.
FIELDS

root=$(tree libctessel-dev)
components "$root" development
# cTessel.h has Eigen's arrays in its interface, and the static library needs OpenMP's runtime.
package libctessel-dev libdevel "$runtime (= $version-1), libeigen3-dev (>= 3.4)" <<'FIELDS'
Description: reconstruction kernels for magnetic-resonance imaging (development)
 Plain C++ functions over float arrays: circular shifts, zero padding, filters,
 partial Fourier, SENSE, sensitivity maps, coil combination and interpolation.
 Any number of threads gives the same bits.
 .
 This package has the headers, the static library, and what CMake and
 pkg-config need to find them.
FIELDS
# Other builds may have their libraries where Debian's do not lie.
if [ $# -eq 0 ]; then judge "$runtime" libctessel-dev; fi
