#!/usr/bin/env bash
# The Debian package of a build: what is in it, and what dpkg is told.
#
#   check_package.sh BUILD_FOLDER
set -eu
for tool in dpkg-deb dpkg-shlibdeps file; do
  command -v "$tool" >/dev/null || { echo "SKIPPED: no $tool here"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

cpack -G DEB --config "$1/CPackConfig.cmake" -B "$work" >"$work/log" 2>&1 ||
  { cat "$work/log"; exit 1; }
package=$(ls "$work"/libctessel-dev_*.deb)
dpkg-deb -c "$package" >"$work/files"
for file in include/cTessel.h include/ctessel.hpp libcTessel.a libcTessel.so cTesselConfig.cmake \
  cTesselConfigVersion.cmake cTesselTargets.cmake pkgconfig/cTessel.pc doc/libctessel-dev/copyright \
  doc/cTessel/NOTICE; do
  grep -qE "/$file( |\$)" "$work/files" || { echo "missing: $file"; status=1; }
done
others=$(grep -vE "^d|\./usr/(include/c(Tessel\.h|tessel\.hpp)|lib/|share/doc/)" "$work/files" || true)
[ -z "$others" ] || { echo "not for users: $others"; status=1; }

for field in 'Package: libctessel-dev' 'Section: libdevel' 'Depends:.*libeigen3-dev.*libgomp1'; do
  dpkg-deb -f "$package" | grep -qE "^$field" || { echo "control file lacks $field"; status=1; }
done
[ "$(dpkg-deb --ctrl-tarfile "$package" | tar -xO ./triggers)" = 'activate-noawait ldconfig' ] ||
  { echo 'the linker is not told of the library'; status=1; }
exit $status
