#!/usr/bin/env bash
# Line and branch coverage of the library by the whole suite. The report goes to build/coverage/report.
cd "$(dirname "$0")/../.." && . script/lib/common.sh

[ -e build/coverage/CMakeCache.txt ] || quietly cmake -S . -B build/coverage -G Ninja \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -O0 -fprofile-update=atomic" -DCMAKE_CXX_COMPILER_LAUNCHER=
quietly cmake --build build/coverage
find build/coverage -name '*.gcda' -delete
ctest --test-dir build/coverage --output-on-failure
mkdir -p build/coverage/report
gcovr --root . --object-directory build/coverage \
  --filter 'storage/' --filter 'block/' --filter 'engine/' --filter 'record/' --filter 'napi/' --filter 'include/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --html-details build/coverage/report/index.html --txt build/coverage/report/lines.txt --print-summary
gcovr --root . --object-directory build/coverage --txt-metric branch \
  --filter 'storage/' --filter 'block/' --filter 'engine/' --filter 'record/' --filter 'napi/' --filter 'include/' \
  --exclude-throw-branches --exclude-unreachable-branches --txt build/coverage/report/branches.txt >/dev/null 2>&1 || true
cat build/coverage/report/lines.txt
