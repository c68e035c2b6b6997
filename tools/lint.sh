#!/usr/bin/env bash
# Checks of texts and sources that run nothing: shell scripts, spelling, Python, links, layers, formatting.
#
#   tools/lint.sh           seconds, part of ./test.sh
#   tools/lint.sh --all     also the types of the Python package, and clang-tidy: some minutes
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
[ ! -e .git ] || tools/install_packages.sh tools/packages.txt || exit 1
if ! git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  echo 'SKIPPED: checks of sources and texts need a git checkout'
  exit 0
fi
status=0
check() {  # NAME COMMAND...
  local name=$1 said
  shift
  if said=$("$@" 2>&1); then
    echo "passed: $name"
  else
    printf '%s\nfailed: %s\n' "$said" "$name"
    status=1
  fi
}
files() { git ls-files -- "$@"; }
tidy() {  # what the preset `default` compiles, without the flag that clang does not know
  cmake --preset default -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null || return 1
  mkdir -p build/tidy
  sed 's/-fno-gnu-unique//' build/default/compile_commands.json >build/tidy/compile_commands.json
  files 'recon/*.cpp' gateway/homodyne.cpp gateway/mexversion.cpp gateway/host/memory.cpp |
    xargs -P "$(nproc)" -n 1 clang-tidy -p build/tidy --quiet --warnings-as-errors='*'
}
one_version() {  # CMake's is the one; these files cannot ask CMake
  local version
  version=$(sed -nE 's/^project\(cTessel VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
  grep -qx "version: $version" CITATION.cff || { echo "CITATION.cff has another version than $version"; return 1; }
  [ "$(sed -nE 's/^## ([0-9.]+) \(.*/\1/p' CHANGELOG.md | head -n 1)" = "$version" ] ||
    { echo "the first version in CHANGELOG.md is not $version"; return 1; }
  ! git grep -nE 'ctessel[-_][0-9]+\.[0-9]+\.[0-9]+' -- README.md docs tools
}

mapfile -t scripts < <(files '*.sh' .ci/run)
mapfile -t python < <(files '*.py')
# Seeds of fuzzing targets are bytes, and pictures are no text.
mapfile -t texts < <(files | grep -vE '^fuzz/corpus/|\.png$')
check 'shell scripts' shellcheck --severity=warning "${scripts[@]}"
check spelling codespell --config tools/codespell.cfg "${texts[@]}"
check Python /usr/bin/python3 -m flake8 --config tools/flake8.cfg "${python[@]}"
check links /usr/bin/python3 tools/check_links.py
check 'tables of measured figures' /usr/bin/python3 bench/tables.py --check
check layers tests/check_layers.sh .
check 'one version' one_version

mapfile -t sources < <(files '*.cpp' '*.cc' '*.h' '*.hpp')
if clang-format --version | grep -q 'version 14\.'; then  # others lay sources out otherwise
  check 'formatting of C++' clang-format --dry-run -Werror "${sources[@]}"
else
  echo 'SKIPPED: formatting of C++ needs clang-format 14, that of Debian 12'
fi

if [ "${1-}" = --all ]; then
  if black --version | grep -q ' 23\.'; then
    check 'formatting of Python' black --quiet --check "${python[@]}"
  else
    echo 'SKIPPED: formatting of Python needs black 23, that of Debian 12'
  fi
  tools/install_packages.sh python/packages.txt
  check 'types of the Python package' mypy --config-file tools/mypy.ini python/ctessel
  tools/install_packages.sh packages-all.txt
  if clang-tidy --version | grep -q 'version 14\.'; then  # others have other checks
    check 'clang-tidy' tidy
  else
    echo 'SKIPPED: clang-tidy 14, that of Debian 12, is not here'
  fi
fi
exit $status
