# script/lib/common.sh: what the scripts share. Sourced with the repository's root as the working directory.
set -euo pipefail

jobs=$(nproc)
export CMAKE_BUILD_PARALLEL_LEVEL=$jobs
export CTEST_PARALLEL_LEVEL=$jobs

say() { printf '== %s\n' "$*"; }

# Runs a command quietly; shows what it printed when it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    printf 'failed with %s: %s\n' "$status" "$*" >&2
    tail -n 120 "$log" >&2
  fi
  rm -f "$log"
  return "$status"
}

# build PRESET [TARGET...]: configures once and builds below build/PRESET.
build() {
  local preset=$1
  shift
  [ -e "build/$preset/CMakeCache.txt" ] || quietly cmake --preset "$preset" ${configure_options:-}
  if [ $# -eq 0 ]; then
    quietly cmake --build --preset "$preset"
  else
    quietly cmake --build --preset "$preset" --target "$@"
  fi
}
