#!/usr/bin/env bash
# Counts the code lines of the library and its bindings: neither blank nor comment.
#
#   tools/code_lines.sh [REVISION]
set -euo pipefail
cd "$(dirname "$0")/.."

revision=${1:-HEAD}
git archive "$revision" recon gateway python/src octave/src | tar -x --to-stdout --wildcards \
  '*.h' '*.hpp' '*.cpp' '*.cc' | grep -cvE '^\s*(//.*)?$'
