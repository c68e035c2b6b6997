#!/usr/bin/env bash
# Makes the Debian package python3-ctessel under build/python/ from the wheel that pip builds.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install_packages.sh packages.txt
tools/install_packages.sh python/packages.txt
tools/viewer.sh

export PATH=/usr/bin:$PATH # Debian's Python, whatever else is installed
version=$(sed -nE 's/^project\(cTessel VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
python=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
architecture=$(dpkg --print-architecture)
root=build/python/deb
rm -rf "$root"
packages=$root/usr/lib/python3/dist-packages doc=$root/usr/share/doc/python3-ctessel
mkdir -p "$root/DEBIAN" "$packages" "$doc"
umask 022
/usr/bin/python3 -m pip install --no-build-isolation --no-deps --no-index --no-compile \
  --target "$packages" ./python >"$root.log" 2>&1 || { cat "$root.log" >&2; exit 1; }
rm -f "$packages"/*.dist-info/{direct_url.json,RECORD,REQUESTED}
mv "$packages/bin" "$root/usr/bin"

libraries=$(cd "$root" && mkdir -p debian && touch debian/control &&
  dpkg-shlibdeps -O --ignore-missing-info usr/lib/python3/dist-packages/ctessel/*.so 2>/dev/null |
  sed 's/^shlibs:Depends=//'; rm -rf debian)
cat >"$root/DEBIAN/control" <<CONTROL
Package: python3-ctessel
Version: $version
Section: python
Priority: optional
Architecture: $architecture
Maintainer: cTessel developers <ctessel@example.org>
Installed-Size: $(du -ks "$root/usr" | cut -f1)
Depends: python3 (>= $python), python3 (<< ${python%.*}.$((${python#*.} + 1))), python3-numpy, $libraries
Recommends: python3-scipy, python3-nibabel, python3-matplotlib, python3-tqdm, python3-h5py
Suggests: python3-dask, python3-distributed, python3-pydicom
Description: reconstruction kernels for magnetic-resonance imaging (Python)
 Homodyne reconstruction of partial-Fourier scans, SENSE, coil combination,
 geometry correction, ringing filter, zero padding and shifts on NumPy arrays
 of any memory order, with results that are the same on any number of threads.
 The command ctessel reconstructs ISMRMRD raw data to NIfTI images; it needs
 the recommended packages.
CONTROL
cat LICENSE <(echo) NOTICE >"$doc/copyright"
printf 'python3-ctessel (%s) unstable; urgency=low\n\n  * See CHANGELOG.md of the sources.\n\n -- cTessel developers <ctessel@example.org>  %s\n' \
  "$version" "$(date -R -d "@$(git log -1 --format=%ct 2>/dev/null || date +%s)")" |
  gzip -9n >"$doc/changelog.gz"
(cd "$root" && find usr -type f -exec md5sum {} + >DEBIAN/md5sums)
chmod -R u+rwX,go+rX,go-w "$root"
find "$root/usr" -type f -exec chmod 644 {} +
chmod 755 "$root/usr/bin/ctessel"
dpkg-deb --root-owner-group --build "$root" build/python >/dev/null
echo "build/python/python3-ctessel_${version}_$architecture.deb"
