#!/bin/bash
# Stores that one architecture wrote, on another: the same bytes, read and written on in both directions.
#
#   portable_store_test.sh SOURCE WORK OTHER...
#
# OTHER is portable_store of the other architecture with its emulator in front; the one of this machine is
# built in WORK/native. The rest of WORK is emptied first.
set -euo pipefail
source=$1
work=$2
shift 2
there=("$@")
rm -rf "$work/stores"
mkdir -p "$work/stores"
cd "$work/stores"

# Without the flags of whoever builds for the other architecture.
(unset CC CXX CFLAGS CXXFLAGS LDFLAGS CMAKE_TOOLCHAIN_FILE
  cmake -S "$source" -B "$work/native" -G Ninja -DCMAKE_BUILD_TYPE= -DKESTRUN_BUILD_TOOLS=OFF &&
  cmake --build "$work/native" --target portable_store) >"$work/native.log" 2>&1 || { cat "$work/native.log"; exit 1; }
here=("$work/native/tests/abi/portable_store")

failures=0
expect() {  # expect DESCRIPTION COMMAND...; the library's diagnostics are of no interest
  local description=$1
  shift
  if "$@" >last.log; then
    echo "ok: $description"
  else
    echo "FAILED: $description"
    head -c 2000 last.log
    failures=$((failures + 1))
  fi
}

mkdir here there
expect "this architecture writes a store" "${here[@]}" write here
expect "the other architecture writes a store" "${there[@]}" write there
expect "there is a log, a manifest, a schema and more than one block" bash -c "
  ls here/values/wal_v5 here/values/manifest_v5 here/records/meta_v5 &&
  [ \$(ls here/values/*.blk_v5 | wc -l) -gt 1 ]"
expect "both stores have the same files with the same bytes" diff -r here there
expect "two runs of one program write the same bytes, so that the comparison means something" bash -c "
  mkdir again && '${here[0]}' write again >again.log && diff -r here again"

expect "this architecture reads the store of the other" "${here[@]}" read there
expect "the other reads the store of this one" "${there[@]}" read here
expect "reading has not changed a byte" diff -r here again

expect "this architecture goes on with the store of the other" "${here[@]}" continue there
expect "the other goes on with the store of this one" "${there[@]}" continue here
expect "the stores are the same again" diff -r here there
expect "and differ from what they were" bash -c "! diff -rq here again >changes.log && [ -s changes.log ]"
expect "this architecture reads what was written by both" "${here[@]}" read-continued here
expect "so does the other" "${there[@]}" read-continued there

exit $((failures > 0))
