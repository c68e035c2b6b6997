#!/usr/bin/env bash
# Makes ctessel-VERSION.tar.gz, all that `pkg install` needs, and prints its name.
#
#   octave/package.sh FOLDER
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: octave/package.sh FOLDER" >&2
  exit 2
fi
mkdir -p "$1"
out=$(realpath -- "$1")
cd "$(dirname "$0")/.."

version=$(sed -nE 's/^project\(cTessel VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
name=ctessel-$version
date=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
package=$tree/$name

mkdir -p "$package/src/recon" "$package/src/gateway/host"
cp -r octave/inst octave/INDEX "$package"
cp octave/src/* "$package/src"
cp recon/*.cpp recon/*.h recon/*.hpp "$package/src/recon"
cp gateway/homodyne.{cpp,h,m} gateway/mexversion.cpp gateway/exports.map "$package/src/gateway"
cp gateway/host/{interleaved.cpp,host.h} "$package/src/gateway/host"
cat LICENSE <(echo) NOTICE >"$package/COPYING"
cp CHANGELOG.md "$package/NEWS"
sed -e "s/@VERSION@/$version/" -e "s/@DATE@/$(date -u -d "@$date" +%F)/" octave/DESCRIPTION.in \
  >"$package/DESCRIPTION"

# The same sources give the same file.
tar -C "$tree" --sort=name --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX \
  --mtime="@$date" -c "$name" | gzip -n9 >"$out/$name.tar.gz"
echo "$out/$name.tar.gz"
