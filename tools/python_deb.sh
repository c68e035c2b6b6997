#!/usr/bin/env bash
# Makes the Debian package ctessel under build/python/ from the wheel that pip builds: the command with its
# manual page and completion, and the Python package with the viewer of reports.
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
packages=$root/usr/lib/python3/dist-packages doc=$root/usr/share/doc/ctessel
mkdir -p "$root/DEBIAN" "$packages" "$doc"
umask 022
/usr/bin/python3 -m pip install --no-build-isolation --no-deps --no-index --no-compile \
  --target "$packages" ./python >"$root.log" 2>&1 || { cat "$root.log" >&2; exit 1; }
rm -f "$packages"/*.dist-info/{direct_url.json,RECORD,REQUESTED}
mv "$packages/bin" "$root/usr/bin"

libraries=$(cd "$root" && mkdir -p debian && touch debian/control &&
  dpkg-shlibdeps -O --ignore-missing-info usr/lib/python3/dist-packages/ctessel/*.so 2>/dev/null |
  sed 's/^shlibs:Depends=//'; rm -rf debian)
maintainer=$(sed -nE 's/^set\(CPACK_PACKAGE_CONTACT "(.*)"\)/\1/p' cmake/Package.cmake)
cat >"$root/DEBIAN/control" <<CONTROL
Package: ctessel
Version: $version-1
Section: science
Priority: optional
Architecture: $architecture
Maintainer: $maintainer
Installed-Size: $(du -ks "$root/usr" | cut -f1)
Provides: python3-ctessel
Conflicts: python3-ctessel
Replaces: python3-ctessel
Depends: python3 (>= $python), python3 (<< ${python%.*}.$((${python#*.} + 1))), python3-h5py, python3-nibabel, python3-numpy, python3-scipy, python3-tqdm, $libraries
Recommends: python3-matplotlib
Suggests: python3-dask, python3-distributed, python3-pydicom
Description: images from MRI raw data, as a command and in Python
 The command ctessel reconstructs Cartesian raw data (ISMRMRD and other files,
 or a stream from a scanner) to NIfTI, BIDS or DICOM images, with reports.
 .
 The Python package ctessel has its steps and kernels on NumPy arrays: partial
 Fourier, SENSE, sensitivity and noise maps, coil combination and gradient
 non-linearity. Results are the same on any number of threads.
CONTROL

# What the interpreter compiles when it imports the package goes with it.
cat >"$root/DEBIAN/postinst" <<'SCRIPT'
#!/bin/sh
set -e
if [ "$1" = configure ]; then py3compile -p ctessel; fi
SCRIPT
cat >"$root/DEBIAN/prerm" <<'SCRIPT'
#!/bin/sh
set -e
py3clean -p ctessel
SCRIPT
chmod 755 "$root/DEBIAN"/{postinst,prerm}

man=$root/usr/share/man/man1 completions=$root/usr/share/bash-completion/completions
mkdir -p "$man" "$completions"
command_files() { PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$packages /usr/bin/python3 tools/command_files.py "$1"; }
command_files man | gzip -9n >"$man/ctessel.1.gz"
command_files bash >"$completions/ctessel"
sed -i '1s|.*|#!/usr/bin/python3|' "$root/usr/bin/ctessel"
{
  printf 'Copyright: 2026, the cTessel maintainers\n\n'
  cat LICENSE <(echo) NOTICE
} >"$doc/copyright"
printf 'ctessel (%s-1) unstable; urgency=low\n\n  * See changelog.gz.\n\n -- %s  %s\n' \
  "$version" "$maintainer" "$(date -R -d "@$(git log -1 --format=%ct 2>/dev/null || date +%s)")" |
  gzip -9n >"$doc/changelog.Debian.gz"
gzip -9nc CHANGELOG.md >"$doc/changelog.gz"
mkdir -p "$root/usr/share/lintian/overrides"
echo 'ctessel: initial-upload-closes-no-bugs' >"$root/usr/share/lintian/overrides/ctessel"  # it is not uploaded
(cd "$root" && find usr -type f -exec md5sum {} + >DEBIAN/md5sums)
chmod -R u+rwX,go+rX,go-w "$root"
find "$root/usr" -type f -exec chmod 644 {} +
chmod 755 "$root/usr/bin/ctessel"
dpkg-deb --root-owner-group --build "$root" build/python >/dev/null
package=build/python/ctessel_${version}-1_$architecture.deb
if command -v lintian >/dev/null; then
  lintian --allow-root --fail-on error,warning "$package" >&2
fi
echo "$package"
