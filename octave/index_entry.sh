#!/usr/bin/env bash
# Prints the entry of the package for the index of Octave's packages, the file packages/ctessel.yaml there.
#
#   octave/index_entry.sh TARBALL ADDRESS     what octave/package.sh made, and where it can be downloaded
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: octave/index_entry.sh TARBALL ADDRESS" >&2
  exit 2
fi
description=$(tar -xzOf "$1" --wildcards '*/DESCRIPTION')
field() { sed -nE "s/^$1: //p" <<<"$description"; }

cat <<ENTRY
---
layout: "package"
permalink: "$(field Name)/"
description: >-
  $(field Title)
links:
- icon: "far fa-copyright"
  label: "$(field License)"
  url: "https://spdx.org/licenses/$(field License).html"
maintainers:
- name: "$(field Maintainer)"
  contact: "maintainers@ctessel.org"
versions:
- id: "$(field Version)"
  date: "$(field Date)"
  sha256: "$(sha256sum <"$1" | cut -d ' ' -f 1)"
  url: "$2"
  depends:
  - "$(field Depends)"
---
ENTRY
