#!/usr/bin/env bash
# Unpacks packages of the 32-bit architecture below build/, on a 64-bit Debian without a second
# architecture, and prints the folder.
#
#   tools/package32.sh PACKAGE...
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)/build/libc32
mkdir -p "$root/apt/lists/partial" "$root/apt/cache/archives/partial"
exec 9>"$root/apt/lock"
flock 9  # several builds at once
apt=(apt-get -qq -o APT::Architectures::=amd64 -o APT::Architectures::=i386
     -o Dir::State::lists="$root/apt/lists" -o Dir::Cache="$root/apt/cache" -o APT::Sandbox::User=)
for package in "$@"; do
  [ -e "$root/apt/$package.done" ] && continue
  (cd "$root/apt" && rm -f "${package}"_*.deb
   "${apt[@]}" update >/dev/null 2>&1 || true  # an index that is of no use here may be missing
   "${apt[@]}" download "$package:i386" >&2 && dpkg -x "${package}"_*.deb "$root")
  touch "$root/apt/$package.done"
done
echo "$root"
