#!/usr/bin/env bash
# Line and branch coverage of the library by the whole suite, with a reason for each branch that no test takes. The
# pages go to build/coverage/report.
cd "$(dirname "$0")/../.." && . script/lib/common.sh

[ -e build/coverage/CMakeCache.txt ] || quietly cmake -S . -B build/coverage -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_FLAGS="-O1 -g1 -fprofile-instr-generate -fprofile-update=atomic -fcoverage-mapping \
    -mllvm -runtime-counter-relocation"
say "coverage: building"
quietly cmake --build build/coverage

# The counters are in mapped files, one for each program that is started, which its forked children share: so those
# count as well that are killed.
say "coverage: testing"
cd build/coverage
rm -rf profiles report
mkdir -p profiles report
# What is drawn at random is the same in every run, so that the same branches are left.
export KESTRUN_TEST_SEED=1
LLVM_PROFILE_FILE=$PWD/profiles/%p-%m%c.profraw ctest --output-on-failure >ctest.log || {
  grep -vE '^ *[0-9]+/[0-9]+ Test .* Passed|^ +Start ' ctest.log | tail -n 200
  exit 1
}
tail -n 3 ctest.log

# Tests and library have the same sources; the shared library alone tells which of them are the library's.
find profiles -name '*.profraw' >profiles.txt
llvm-profdata merge -sparse -input-files=profiles.txt -o all.profdata
rm -rf profiles
llvm-cov show libKestrun2.so -instr-profile=all.profdata -format=html -show-branches=count -output-dir=report 2>/dev/null
llvm-cov export libKestrun2.so -instr-profile=all.profdata >coverage.json 2>/dev/null
cd ../..
python3 script/lib/coverage_report.py build/coverage/coverage.json tests/coverage_reasons.txt |
  tee build/coverage/report/report.txt
