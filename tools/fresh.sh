#!/usr/bin/env bash
# Makes a bare Debian 12 or 13 under build/fresh/, clones the committed state into it and runs a command
# there, in the clone. Needs root and mmdebstrap; everything is removed afterwards.
#
#   tools/fresh.sh 12|13 COMMAND [ARGUMENT...]
set -euo pipefail

case "${1-}" in
  12) suite=bookworm ;;
  13) suite=trixie ;;
  *) suite= ;;
esac
if [ -z "$suite" ] || [ $# -lt 2 ]; then
  echo "usage: $0 12|13 COMMAND [ARGUMENT...]" >&2
  exit 2
fi
shift
if [ "$(id -u)" -ne 0 ] || ! command -v mmdebstrap >/dev/null; then
  echo "$0 needs root and mmdebstrap (apt-get install mmdebstrap)." >&2
  exit 1
fi
cd "$(dirname "$0")/.."
[ -z "$(git status --porcelain --untracked-files=no)" ] ||
  echo "$0: what is not committed is not in the clone" >&2

mkdir -p build/fresh
root=$(mktemp -d "$PWD/build/fresh/$suite.XXXXXX")
child=
finish() {
  [ -z "$child" ] || { kill -KILL "$child" && wait "$child"; } 2>/dev/null || true
  # Nothing was mounted where this script runs, and a deletion does not follow a mount even so.
  rm -rf --one-file-system "$root"
}
trap finish EXIT
trap 'exit 130' INT TERM HUP
mmdebstrap --quiet --mode=root --variant=minbase "$suite" "$root"
git clone --quiet --no-hardlinks . "$root/srv/cTessel"

# /proc and /dev are mounted for the command's own processes alone: the mounts go with the last of
# them, and they with this script. In the background, so that signals to the script do not wait.
unshare --mount --pid --fork --kill-child -- bash -c '
  mount -t proc proc "$0/proc" && mount --bind /dev "$0/dev" && mount -t tmpfs tmpfs "$0/dev/shm" &&
  exec chroot "$0" env -i -C /srv/cTessel HOME=/root LANG=C.UTF-8 \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"' "$root" "$@" &
child=$!
status=0
wait "$child" || status=$?
child=
exit "$status"
