#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer and sanitizers, and runs each for KESTRUN_FUZZ_SECONDS (10), always from the same
# seed: a change fails for what it did, not for what a run happened upon. KESTRUN_FUZZ_SEED=0 looks elsewhere each time;
# long runs do. What a run finds stays below build/fuzz/findings.
cd "$(dirname "$0")/../.." && . script/lib/common.sh

seconds=${KESTRUN_FUZZ_SECONDS:-10}
seed=${KESTRUN_FUZZ_SEED:-1}
[ -e build/fuzz/CMakeCache.txt ] || quietly cmake -S . -B build/fuzz -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DKESTRUN_BUILD_FUZZERS=ON -DKESTRUN_BUILD_TOOLS=OFF \
  -DKESTRUN_SANITIZE=fuzzer-no-link,address,undefined
quietly cmake --build build/fuzz --target fuzzers

run_one() {
  local program=$1 name work
  name=$(basename "$program")
  work=build/fuzz/run/$name
  rm -rf "$work"
  mkdir -p "$work" build/fuzz/findings
  # The seeds in the tree stay as they are; what is new goes to a folder of this run.
  if "$program" -seed="$seed" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="build/fuzz/findings/$name-" "$work" "tests/fuzz/corpus/$name" \
    >"$work.stdout" 2>"$work.log"; then
    printf '   %-24s %s runs, nothing found\n' "$name" "$(sed -n 's/stat::number_of_executed_units: *//p' "$work.log")"
  else
    printf '   %-24s found something:\n' "$name"
    tail -n 60 "$work.log"
    return 1
  fi
}
export -f run_one
export seconds seed
find build/fuzz/tests/fuzz -maxdepth 1 -name '*_fuzz' -type f | sort | xargs -P "$jobs" -I{} bash -c 'run_one {}'
