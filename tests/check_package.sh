#!/usr/bin/env bash
# The Debian packages of the library: what is in each, and what installing, upgrading and removing them leaves.
#
#   check_package.sh BUILD_FOLDER SOURCE_FOLDER
set -eu
for tool in dpkg dpkg-deb dpkg-shlibdeps file; do
  command -v "$tool" >/dev/null || { echo "SKIPPED: no $tool here"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
fault() { echo "$*"; status=1; }

"$2/tools/library_debs.sh" "$1" "$work" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
development=$(ls "$work"/libctessel-dev_*.deb)
runtime=$(ls "$work"/libctessel[0-9]*.deb)
soname=$(objdump -p "$1/recon/libcTessel.so" | sed -nE 's/^ *SONAME *//p')
name=libctessel${soname##*.so.} version=$(dpkg-deb -f "$runtime" Version)

# Paths in a package, without the folder that the multiarch scheme puts libraries into.
files() { dpkg-deb -c "$1" | sed -nE -e 's|/[^/]*-linux-gnu/|/|' -e 's|^[^d].* \./usr/([^ ]*)( -> .*)?$|\1|p' | sort; }
expect() {  # PACKAGE FILE FILE...: with the texts that every package has
  diff <(files "$1") <(printf '%s\n' "${@:3}" share/doc/"$2"/{changelog.gz,changelog.Debian.gz,copyright} | sort) ||
    fault "$2 misses (>) or has (<) files"
}
config=lib/cmake/cTessel/cTessel
expect "$runtime" "$name" "lib/$soname" "lib/libcTessel.so.${version%-*}"
expect "$development" libctessel-dev "$config"{Config,ConfigVersion,Targets}.cmake \
  lib/libcTessel.{a,so} lib/pkgconfig/cTessel.pc include/{cTessel.h,ctessel.hpp} \
  "$(files "$development" | grep "^${config}Targets-[a-z]*.cmake$")"

has() { dpkg-deb -f "$1" | grep -qE "^$2" || fault "control file of $1 lacks $2"; }
has "$runtime" "Package: $name$"
has "$runtime" 'Depends:.*libgomp1'
has "$development" "Depends: $name \(= $version\), libeigen3-dev"
dpkg-deb -f "$runtime" Depends | grep -q eigen && fault 'programs do not need Eigen'
[ "$(dpkg-deb --ctrl-tarfile "$runtime" | tar -xO ./triggers)" = 'activate-noawait ldconfig' ] ||
  fault 'the linker is not told of the library'

# A package of 0.1.0, which had the library beside the headers, makes room for both.
as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v fakeroot >/dev/null || { echo 'SKIPPED: installing needs root, or fakeroot'; exit $((status ? 1 : 77)); }
  as_root=(fakeroot)
fi
old=$work/old root=$work/root
dpkg-deb -R "$development" "$old"
dpkg-deb -x "$runtime" "$old"
rm -r "$old/usr/share/doc/$name"
sed -i -e '/^Depends/d' -e 's/^Version: .*/Version: 0.1.0-1/' "$old/DEBIAN/control"
find "$old" -name 'libcTessel.so*' -type l -delete
mv "$(find "$old" -name 'libcTessel.so.*')" "$old/usr/lib/libcTessel.so.0.1.0"
dpkg-deb --root-owner-group --build "$old" "$old.deb" >/dev/null

mkdir -p "$root/var/lib/dpkg"/{info,updates,triggers}
touch "$root/var/lib/dpkg/status"
system() {
  PATH=$PATH:/usr/sbin:/sbin "${as_root[@]}" dpkg --root="$root" --log=/dev/null --force-depends "$@" \
    >"$work/log" 2>&1 || { cat "$work/log"; fault "dpkg $*"; }
}
installed() { find "$root" -path "$root/var" -prune -o ! -type d -printf '%P\n' | sort; }
packaged() { for each; do dpkg-deb -c "$each"; done | sed -nE 's|^[^d].* \./([^ ]*)( -> .*)?$|\1|p' | sort; }
system -i "$old.deb"
installed | grep -q 'libcTessel.so.0.1.0$' || fault 'the old package is not installed'
system -i "$runtime" "$development"
diff <(installed) <(packaged "$runtime" "$development") || fault 'the upgrade leaves (<) or loses (>) files'

libraries=$(dirname "$(find "$root" -name libcTessel.so)")
printf '#include <ctessel.hpp>\nint main() { ctessel::sos({}, ctessel::Dim::coil, {}); }\n' >"$work/program.cpp"
c++ -std=c++20 -I "$root/usr/include" "$work/program.cpp" -L "$libraries" -lcTessel -o "$work/program"
system -r libctessel-dev
LD_LIBRARY_PATH=$libraries ldd -r "$work/program" | grep -E 'not found|undefined' && fault 'programs need libctessel-dev'
system -P libctessel-dev "$name"
[ -z "$(installed)" ] || fault "left behind: $(installed)"
exit $status
