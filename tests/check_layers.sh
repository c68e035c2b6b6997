#!/usr/bin/env bash
# Which part may include which: dependencies point from the gateway to the kernels, never back.
#
#   check_layers.sh SOURCE_FOLDER
set -u
cd "$1" || exit 1
status=0
# files, headers of ours and of others that they may include
allow() {
  local pattern=$1 found
  shift
  found=$(grep -HnE '^ *# *include' "$@" | grep -vE "[<\"]($pattern)[\">]")
  [ -z "$found" ] || { printf 'not allowed here:\n%s\n' "$found"; status=1; }
}
std='[a-z_0-9]+|c(math|stddef|stdint|stdlib|string|limits|complex)'
own=$(basename -a recon/*.h recon/*.hpp | paste -sd'|' | sed 's/\./\\./g')
# The stores past the caches come from a header of the compiler.
allow "$std|omp\.h|emmintrin\.h|Eigen/[A-Za-z]+|$own" recon/*.cpp recon/*.h
allow "$std" recon/*.hpp
allow "$std|homodyne\.h|host/host\.h|ctessel\.hpp" gateway/*.cpp gateway/*.h
allow "$std|mex\.h|host\.h|memory\.h" gateway/host/*
found=$(grep -nE '\b(printf|puts|fopen|std::cout|std::cerr|[io]?fstream)\b' recon/*.cpp recon/*.h |
  grep -vE ':[0-9]+: *//')
[ -z "$found" ] || { printf 'the kernels neither print nor open files:\n%s\n' "$found"; status=1; }
exit $status
