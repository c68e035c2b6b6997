#!/usr/bin/env bash
# Whether one version of the hot loops gives the bits of the version that this processor gets, and
# whether the same program holds it for every one of them.
#
#   check_version.sh VERSION REPRODUCIBILITY FORCED_REPRODUCIBILITY
set -u
version=$1 chosen=$2 forced=$3
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail() { echo "$*"; exit 1; }

functions() { nm -C "$chosen" | sed -nE "s/^[0-9a-f]+ . (.*) \[clone \.$1\]\$/\1/p" | sort -u; }
if [ "$version" != baseline ]; then
  [ -n "$(functions resolver)" ] || fail "$chosen holds one version of every function"
  diff <(functions resolver) <(functions "$version") || fail "not every function has a version for $version"
  [[ " $("$chosen" versions) " == *" $version "* ]] || { echo "SKIPPED: this processor lacks $version"; exit 77; }
fi
wide=" $("$forced" versions) "
[[ "$wide" == *" $version "* || $version == baseline && "$wide" == "  " ]] || fail "$version was not forced"

"$chosen" write "$out/chosen" && "$forced" write "$out/forced" || fail "a kernel failed"
cmp -s "$out/chosen" "$out/forced" && exit 0
"$chosen" compare "$out/chosen" "$out/forced"
fail "results differ between $version and $("$chosen" versions)"
