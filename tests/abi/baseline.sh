#!/bin/bash
# The binary interface as the last release has it, kept in kestrun2.x86_64.abi.
#
#   baseline.sh check LIBRARY     status 0 when the library's interface is the baseline's
#   baseline.sh update LIBRARY    makes a new baseline of it
#
# LIBRARY is BUILD/tests/abi/with_debug_information/libKestrun2.so, which the target abi_library makes.
#
# A function that is new is no danger, but makes a new baseline necessary. Anything that changed or is gone
# breaks programs that are compiled already: it takes a new major version.
set -euo pipefail
directory=$(cd "$(dirname "$0")" && pwd)
baseline=$directory/kestrun2.x86_64.abi
headers=$directory/../../include/kestrun
library=$2

# What no public header defines is the library's own affair and is left out. The place of a definition has to
# be kept for that, without the directories, which differ from machine to machine.
case $1 in
  update)
    abidw --headers-dir "$headers" --drop-private-types --exported-interfaces-only --short-locs --no-comp-dir-path \
      --no-corpus-path --no-elf-needed --no-parameter-names --no-write-default-sizes --type-id-style hash "$library" |
      sed -E "s#path='[^']*/((base|format|storage|block|engine|store|record|napi|bindings/c)/[^']*)'#path='\1'#" >"$baseline"
    ;;
  check)
    if ! readelf -SW "$library" | grep -q '\.debug_info'; then
      echo "FAILED: $library has no debug information to compare"
      exit 1
    fi
    status=0
    report=$(abidiff --headers-dir2 "$headers" --drop-private-types --exported-interfaces-only \
      "$baseline" "$library") || status=$?
    [ -z "$report" ] || echo "$report"
    if [ "$status" = 0 ]; then
      echo "ok: the binary interface is the baseline's"
    elif grep -q '^Functions.* 0 Removed, 0 Changed' <<<"$report" && grep -q '^Variables.* 0 Removed, 0 Changed' <<<"$report"; then
      echo "FAILED: the interface grew; 'tests/abi/baseline.sh update LIBRARY' records it"
    else
      echo "FAILED: the interface is not compatible with the baseline any more"
    fi
    exit "$status"
    ;;
  *)
    sed -n '2,12s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
