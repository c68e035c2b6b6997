# shellcheck shell=bash
# What all Debian packages of the project share; for scripts that source it. They set `out`, the folder of
# the packages.
maintainer='the cTessel maintainers <maintainers@ctessel.org>'
version=$(sed -nE 's/^project\(cTessel VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
architecture=$(dpkg --print-architecture)

tree() {  # PACKAGE: prints a new, empty folder for what is to be packaged
  rm -rf "${out:?}/$1"
  mkdir -p "$out/$1/DEBIAN" "$out/$1/usr/share/doc/$1"
  echo "$out/$1"
}

libraries() {  # PACKAGE FILE...: packages with the libraries that the files are linked with
  (cd "$out/$1" && mkdir debian && touch debian/control &&
    dpkg-shlibdeps -O --ignore-missing-info "${@:2}" 2>/dev/null | sed 's/^shlibs:Depends=//'
    rm -rf debian)
}

releases() {  # PACKAGE: the changelog's versions as Debian writes them
  sed -nE 's/^## ([0-9.]+) \((.*)\)$/\1 \2/p' CHANGELOG.md | while read -r release date; do
    printf '%s (%s-1) unstable; urgency=low\n\n  * Version %s: see changelog.gz.\n\n -- %s  %s\n\n' \
      "$1" "$release" "$release" "$maintainer" "$(LC_ALL=C date -u -R -d "$date")"
  done
}

package() {  # PACKAGE SECTION DEPENDS, description and more fields on stdin: prints the package's name
  local root=$out/$1 doc=$out/$1/usr/share/doc/$1 file=$out/$1_$version-1_$architecture.deb
  {
    printf 'Copyright: 2026, the cTessel maintainers\n\n'
    cat LICENSE <(echo) NOTICE
  } >"$doc/copyright"
  gzip -9nc CHANGELOG.md >"$doc/changelog.gz"
  releases "$1" | gzip -9n >"$doc/changelog.Debian.gz"
  printf '%s: %s\n' Package "$1" Version "$version-1" Section "$2" Priority optional \
    Architecture "$architecture" Maintainer "$maintainer" Depends "$3" \
    Installed-Size "$(du -ks "$root/usr" | cut -f1)" >"$root/DEBIAN/control"
  cat >>"$root/DEBIAN/control"
  (cd "$root" && find usr -type f -exec md5sum {} + >DEBIAN/md5sums)
  find "$root" -type d -exec chmod 755 {} +
  find "$root/usr" -type f ! -path '*/bin/*' -exec chmod 644 {} +
  rm -f "$file"
  dpkg-deb --root-owner-group --build "$root" "$file" >/dev/null
  echo "$file"
}

judge() {  # PACKAGE...: with lintian, where it is installed
  local each
  command -v lintian >/dev/null || return 0
  for each; do
    lintian --allow-root --fail-on error,warning "$out/${each}_$version-1_$architecture.deb" >&2
  done
}
