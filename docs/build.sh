#!/usr/bin/env bash
# Builds the documentation site: build/site/html/index.html. A warning or a broken link is an error.
# It needs what tools/python_environment.sh installs, and docs/packages.txt; both are installed if they
# are missing. Pictures of C++ and Octave examples are there if these are built (./test.sh does it).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install_packages.sh docs/packages.txt
environment=$(tools/python_environment.sh)

export CTESSEL_DATA=${CTESSEL_DATA:-$PWD/../shared/data}
export CTESSEL_ROOT=$PWD TMPDIR=$PWD/build/site/temporary
rm -rf build/site
mkdir -p "$TMPDIR"
python=$environment/bin/python
"$python" docs/site/prepare.py build/site/source
"$python" -m sphinx -q -W --keep-going -b html -c docs/site build/site/source build/site/html
# Debian's theme counts on a web server: for a sheet of another package, and for a script that is a module.
theme=build/site/html/_static
if grep -q 'url(/javascript/normalize.css/' $theme/styles/furo.css; then
  cp /usr/share/javascript/normalize.css/normalize.css $theme/styles/
  sed -i 's|url(/javascript/normalize.css/|url(|' $theme/styles/furo.css
fi
if grep -q '^import .*gumshoe' $theme/scripts/furo.js; then
  sed '/^import .*gumshoe/d' $theme/scripts/furo.js >"$TMPDIR/furo.js"
  cat $theme/scripts/gumshoe-patched.js "$TMPDIR/furo.js" >$theme/scripts/furo.js
fi
/usr/bin/python3 docs/site/check.py build/site/html
echo build/site/html/index.html
