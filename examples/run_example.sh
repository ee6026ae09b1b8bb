#!/bin/sh
# run_example.sh PROGRAM PATTERN: runs an example on a fresh store and looks for a line that matches.
set -eu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"$1" "$scratch/store" >/dev/null 2>"$scratch/said"
cat "$scratch/said"
grep -Eq "$2" "$scratch/said"
