#!/usr/bin/env bash
# Names of the routines that public headers declare, those of ctessel.hpp with their namespace:
# declarations start at the margin with a type and end their name with a bracket. Members of classes
# are left out.
#
#   header_routines.sh HEADER...
for header in "$@"; do
  case $header in *.hpp) prefix=ctessel:: ;; *) prefix= ;; esac
  sed -nE "s/^[A-Za-z][A-Za-z0-9_:<>]*( [a-z]+)*[ *&]+([A-Za-z_0-9]+)\(.*/$prefix\2/p" "$header"
done | sort -u
