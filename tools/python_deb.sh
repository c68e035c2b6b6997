#!/usr/bin/env bash
# Makes the Debian package ctessel under build/debs/ from the wheel: the command with its
# manual page and completion, and the Python package with the viewer of reports.
set -euo pipefail
cd "$(dirname "$0")/.."
wheel=$(tools/wheel.sh)

. tools/deb.sh
out=$PWD/build/debs
umask 022
python=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
root=$(tree ctessel)
packages=$root/usr/lib/python3/dist-packages
mkdir -p "$packages"
log=$out/pip.log
/usr/bin/python3 -m pip install --no-deps --no-index --no-compile \
  --target "$packages" "$wheel" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
rm -f "$packages"/*.dist-info/{direct_url.json,RECORD,REQUESTED}
mv "$packages/bin" "$root/usr/bin"
sed -i '1s|.*|#!/usr/bin/python3|' "$root/usr/bin/ctessel"

share=$root/usr/share
mkdir -p "$share"/{man/man1,bash-completion/completions,zsh/vendor-completions,fish/vendor_completions.d}
command_files() { PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$packages /usr/bin/python3 tools/command_files.py "$1"; }
command_files man | gzip -9n >"$share/man/man1/ctessel.1.gz"
command_files bash >"$share/bash-completion/completions/ctessel"
command_files zsh >"$share/zsh/vendor-completions/_ctessel"
command_files fish >"$share/fish/vendor_completions.d/ctessel.fish"

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

depends="python3 (>= $python), python3 (<< ${python%.*}.$((${python#*.} + 1)))"
depends+=', python3-h5py, python3-nibabel, python3-numpy, python3-scipy, python3-tqdm'
modules=$(cd "$root" && echo usr/lib/python3/dist-packages/ctessel/*.so)
# shellcheck disable=SC2086  # several files
depends+=", $(libraries ctessel $modules)"
package ctessel science "$depends" <<'FIELDS'
Provides: python3-ctessel
Conflicts: python3-ctessel
Replaces: python3-ctessel
Recommends: python3-matplotlib
Suggests: python3-dask, python3-distributed, python3-pydicom
Description: images from MRI raw data, as a command and in Python
 The command ctessel reconstructs Cartesian raw data (ISMRMRD and other files,
 or a stream from a scanner) to NIfTI, BIDS or DICOM images, with reports.
 .
 The Python package ctessel has its steps and kernels on NumPy arrays: partial
 Fourier, SENSE, sensitivity and noise maps, coil combination and gradient
 non-linearity. Results are the same on any number of threads.
FIELDS
judge ctessel
