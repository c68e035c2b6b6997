#!/usr/bin/env bash
# Names of the routines that the public header declares: declarations start at the margin with a type
# and end their name with a bracket.
#
#   header_routines.sh PATH/cTessel.h
sed -nE 's/^[A-Za-z][A-Za-z0-9_:<>]*( [a-z]+)*[ *&]+([A-Za-z_0-9]+)\(.*/\2/p' "$1" | sort -u
