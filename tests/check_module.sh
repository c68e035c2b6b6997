#!/usr/bin/env bash
# What the 32-bit module binds, exports and needs: exactly the host entries, the library interface of
# the header, the C runtime, and a processor with SSE2.
#
#   check_module.sh PATH/homodyne.mexglx PATH/cTessel.h
set -u
module=$1 header=$2 status=0
same() {  # name, wanted, got
  if ! diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") >/tmp/ctessel_diff.$$; then
    printf '%s differ (< wanted, > found):\n' "$1"
    cat /tmp/ctessel_diff.$$
    status=1
  fi
  rm -f /tmp/ctessel_diff.$$
}

readelf -h "$module" | grep -q 'ELF32' || { echo 'not a 32-bit module'; status=1; }

same 'host entries' "$(printf '%s\n' mexErrMsgTxt mexWarnMsgTxt mxCreateNumericArray_700 \
  mxGetClassName mxGetDimensions_700 mxGetM mxGetN mxGetNumberOfDimensions_700 mxGetPi mxGetPr \
  mxGetString_700 mxIsChar mxIsComplex | sort)" \
  "$(nm -D --undefined-only "$module" | awk '{print $2}' | grep -E '^(mx|mex)' | sort)"

routines=$("$(dirname "$0")/header_routines.sh" "$header")
same 'exports' "$(printf '%s\n' mexFunction mexVersion $routines | sort -u)" \
  "$(nm -DC --defined-only "$module" | cut -d' ' -f3- | sed 's/(.*//' | sort -u)"

# ld-linux is the loader itself, a part of libc.
extra=$(readelf -d "$module" | sed -nE 's/.*NEEDED.*\[(.*)\]/\1/p' |
  grep -vE '^(libgomp\.so\.1|libm\.so\.6|libc\.so\.6|ld-linux\.so\.2)$')
[ -z "$extra" ] || { echo "needs more than the C runtime: $extra"; status=1; }

if objdump -d --no-show-raw-insn "$module" | grep -qE '%[yz]mm'; then
  echo 'has vectors wider than those of SSE2'
  status=1
fi
exit $status
