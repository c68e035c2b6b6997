#!/usr/bin/env bash
# Prints the table of docs/numerics.md: builds everything by hand in several ways and compares the
# bits of every kernel's results with those of the first.
set -euo pipefail

cd "$(dirname "$0")/.."
out=build/reproducibility
mkdir -p "$out"
flags=(-std=c++20 -ffp-contract=off -fno-math-errno -fno-trapping-math -fopenmp -Wno-pass-failed
       -Irecon -Igateway -Igateway/host -Itests -isystem /usr/include/eigen3)
sources=(recon/*.cpp gateway/homodyne.cpp gateway/mexversion.cpp gateway/host/memory.cpp
         tests/reproducibility.cpp)

build() {  # NAME COMPILER FLAG...
  local name=$1
  shift
  mkdir -p "$out/$name"
  printf '%s\n' "${sources[@]}" |
    xargs -P "$(nproc)" -I{} sh -c '"$@" -c {} -o "$0/$(echo {} | tr / _).o"' "$out/$name" "$@" "${flags[@]}"
  "$@" -fopenmp "$out/$name"/*.o -o "$out/$name/reproducibility"
  "$out/$name/reproducibility" write "$out/$name.txt"
}

build gcc g++ -O3 -DNDEBUG -DCTESSEL_DISPATCH
build baseline g++ -O3 -DNDEBUG
build gcc-O0 g++ -O0
build clang clang++ -O3 -DNDEBUG
build gcc-32 g++ -m32 -msse2 -mfpmath=sse -O3 -DNDEBUG

echo "| Routine | 1, 2, 3, 7 threads | without wide versions | gcc -O0 | clang -O3 | 32 bits |"
echo "|---|---|---|---|---|---|"
"$out/gcc/reproducibility" compare "$out"/{gcc,baseline,gcc-O0,clang,gcc-32}.txt
