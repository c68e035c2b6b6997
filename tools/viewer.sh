#!/usr/bin/env bash
# Fetches the library of the volume viewer that reports carry (NiiVue, BSD-2-Clause, see NOTICE) to
# python/ctessel/, where the package's build finds it. Without npm or its registry everything else builds.
set -euo pipefail
cd "$(dirname "$0")/.."
name=@niivue/niivue version=0.69.0
hash=37dc9688207bcb81b39afe18628488970cecf5f6b3601941508a51c839aeb63ee38cc023405fd9bd2e634a01a71616eb6d50e6a73410739f6d914a978d11267f
library=python/ctessel/niivue.umd.js

right() { echo "$hash  $1" | sha512sum --check --status 2>/dev/null; }
right $library && exit 0
if ! command -v npm >/dev/null; then
  echo 'viewer: left out, npm is not installed; reports say so' >&2
  exit 0
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
if ! (cd "$folder" && timeout 120 npm pack --silent "$name@$version" && tar -xzf ./*.tgz package/dist/niivue.umd.js) \
    >"$folder/log" 2>&1; then
  echo "viewer: left out, npm cannot fetch $name: $(tail -n 1 "$folder/log")" >&2
  exit 0
fi
if ! right "$folder/package/dist/niivue.umd.js"; then
  echo "viewer: $name $version is not the file that is expected" >&2
  exit 1
fi
mv "$folder/package/dist/niivue.umd.js" $library
