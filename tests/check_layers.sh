#!/usr/bin/env bash
# Which part may include or import which: dependencies point from the gateway to the kernels and from the
# command to the scan, never back.
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
# Hosts, examples and benchmarks see what users see: the public headers. Raw data files are read in one place.
public='cTessel\.h|ctessel\.hpp|omp\.h'
bound='pybind11/[a-z0-9]+\.h'
mine=$(basename -a python/src/*.h | paste -sd'|')
allow "$std|$bound|sys/mman\.h|$public|$mine" python/src/{arguments,arrays,coils,espirit,geometry,gradient_field,helpers,homodyne,module,sense}*
allow "$std|$bound|ismrmrd/[a-z]+\.h|hdf5\.h|(sys/)?[a-z]+\.h|$mine" python/src/{raw,lines,stream}*
allow "$std|octave/oct\.h|$public" octave/src/*.cc
allow "$std|png\.h|unsupported/Eigen/FFT|$public|$(basename -a examples/*.h | paste -sd'|')" examples/*.cpp examples/*.h
allow "$std|benchmark/benchmark\.h|malloc\.h|$public|homodyne\.h|host/memory\.h|(naive_[a-z]+|$(basename -s .h -a bench/*.h | paste -sd'|'))\.h" \
  bench/*.cpp bench/*.h

# modules that are not to be imported, module... that do not
forbid() {
  local above="($1)" found
  shift
  found=$(cd python/ctessel && grep -HnE \
    "^ *from (\.|ctessel\.)$above import|^ *from (\.|ctessel) import .*\b$above\b|^ *import ctessel\.$above\b" \
    "${@/%/.py}")
  [ -z "$found" ] || { printf 'not to be imported here:\n%s\n' "$found"; status=1; }
}
bar() { local IFS='|'; echo "$*"; }
kernels=(_arrays _coils _geometry _helpers _sense homodyne)
pieces=(sampling coverage fourier steps slabs)
readers=(raw acquisitions centre _ismrmrd)
command='cli|job|report'
outside="$command|files|nifti|phantom|workers|serve|send|stream|$(bar "${readers[@]}")"
everything="$outside|dask|pipeline|reconstruct|plan|parts|warp|gradients|$(bar "${pieces[@]}")"
# serve reads the command's options from streams.
mapfile -t modules < <(basename -s .py -a python/ctessel/[!_]*.py | grep -vxE 'cli|serve')
forbid cli "${modules[@]}"
forbid '[a-z_]+' coil_choice
mapfile -t above < <(basename -s .py -a python/ctessel/*.py | grep -vxE 'scan|coil_choice')
forbid "$(bar "${above[@]}")" scan
forbid "$everything|scan" "${kernels[@]}" runtime
forbid "$outside|dask|pipeline|reconstruct|plan" "${pieces[@]}" gradients
forbid "$outside|dask|pipeline|reconstruct" plan
forbid "$outside|pipeline" reconstruct
forbid "$command|pipeline|reconstruct|plan|steps" "${readers[@]}"

found=$(grep -nE '\b(printf|puts|fopen|std::cout|std::cerr|[io]?fstream)\b' recon/*.cpp recon/*.h |
  grep -vE ':[0-9]+: *//')
[ -z "$found" ] || { printf 'the kernels neither print nor open files:\n%s\n' "$found"; status=1; }
exit $status
