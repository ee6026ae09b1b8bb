# shellcheck shell=bash disable=SC2154
# Sourced by the tests of this folder, which have set source and work, the directory that is emptied for them.
# They go on in it, and end with `exit $((failures > 0))`.
rm -rf "$work"
mkdir -p "$work"
cd "$work"

version=$(awk '/#define KESTRUN_VERSION_(MAJOR|MINOR|PATCH)/ { v = v sep $3; sep = "." } END { print v }' \
  "$source/include/kestrun/version.h")
major=${version%%.*}

failures=0
expect() {  # expect DESCRIPTION COMMAND...
  local description=$1
  shift
  if "$@" >"$work/last.log" 2>&1; then
    echo "ok: $description"
  else
    echo "FAILED: $description"
    sed 's/^/    /' "$work/last.log"
    failures=$((failures + 1))
  fi
}
