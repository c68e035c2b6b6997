#!/usr/bin/env bash
# Installs the Debian packages of a list that are missing. Needs root only if there are any. A line may
# name alternatives, one|other: the first that this Debian has, unless one of them is there already.
#
#   tools/install_packages.sh LIST
set -euo pipefail

installed() { [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null || true)" = installed ]; }
known() { apt-cache show --no-all-versions "$1" >/dev/null 2>&1; }
first() {  # TEST PACKAGE|PACKAGE... prints the first package that passes the test
  local package
  for package in ${2//|/ }; do
    if "$1" "$package"; then
      echo "$package"
      return
    fi
  done
  return 1
}

missing=()
while read -r packages; do
  first installed "$packages" >/dev/null || missing+=("$packages")
done < <(grep -vE '^ *(#|$)' "$1")
[ ${#missing[@]} -gt 0 ] || exit 0

names() {  # of this Debian
  local alternatives
  for alternatives in "${missing[@]}"; do
    first known "$alternatives" || echo "${alternatives%%|*}"
  done | paste -sd ' '
}

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "Missing packages. As root: apt-get update && apt-get install --no-install-recommends $(names)" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "Installing: ${missing[*]%%|*}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
fail() {
  tail -n 20 "$log" >&2
  echo "Installing packages failed (see above)." >&2
  exit 1
}
"${as_root[@]}" apt-get update >"$log" 2>&1 || fail
read -ra packages < <(names)
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
  "${packages[@]}" >"$log" 2>&1 || fail
