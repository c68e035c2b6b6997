#!/usr/bin/env bash
# Unpacks what some tests of ./test.sh --all need from npm into build/npm, and prints that folder: the
# checker of the BIDS standard, and what drives and judges pages in a browser. Prints nothing without npm.
set -euo pipefail
cd "$(dirname "$0")/.."
packages='bids-validator@1.15.0 playwright-core@1.56.1 axe-core@4.10.2'

if ! command -v npm >/dev/null || ! command -v node >/dev/null; then
  echo 'npm is not installed: no tests with a browser, none with the checker of BIDS' >&2
  exit 0
fi
tools/install_packages.sh python/packages-browser.txt >&2
folder=$PWD/build/npm
for package in $packages; do
  target=$folder/node_modules/${package%@*}
  grep -qs "\"version\": \"${package#*@}\"" "$target/package.json" && continue
  rm -rf "$target" && mkdir -p "$target"
  if ! (cd "$folder" && timeout 300 npm pack --silent "$package" | xargs -I '{}' tar -xzf '{}' -C "$target" --strip-components 1); then
    rm -rf "$target"
    echo "npm cannot fetch $package: no tests with a browser, none with the checker of BIDS" >&2
    exit 0
  fi
  rm -f "$folder"/*.tgz
done
echo "$folder"
