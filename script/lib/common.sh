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

# configure PRESET [OPTION...]: makes build/PRESET as the preset says. An existing one is configured again where the
# presets have changed since or options are given.
configure() {
  local preset=$1
  shift
  if [ $# -gt 0 ] || [ ! -e "build/$preset/build.ninja" ] || [ CMakePresets.json -nt "build/$preset/build.ninja" ]; then
    quietly cmake --preset "$preset" "$@"
  fi
}

# build PRESET [TARGET...]: configures where necessary and builds below build/PRESET.
build() {
  local preset=$1
  shift
  configure "$preset"
  if [ $# -eq 0 ]; then
    quietly cmake --build --preset "$preset"
  else
    quietly cmake --build --preset "$preset" --target "$@"
  fi
}

# run_ctest PRESET [CTEST ARGUMENT...]: prints the failures and ctest's closing lines; all of it goes to
# build/PRESET/ctest.log.
run_ctest() {
  local preset=$1
  shift
  local log=build/$preset/ctest.log
  ctest --test-dir "build/$preset" --output-on-failure --no-tests=error "$@" >"$log" 2>&1 || {
    grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ +Start ' "$log" | tail -n 200
    return 1
  }
  grep -E '^[0-9]+% tests passed|^Total Test time' "$log"
}
