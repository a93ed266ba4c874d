#!/usr/bin/env bash
# Line and branch coverage of the library (platform/, afe/, chip/) by the
# test suites: a gcov build of its own in build-cov, the suites (the fault
# storm shortened), then gcovr's per-file table with the lines not run and
# its summary. Fails when line coverage drops under 90%.
# The uncovered blocks and why each is left so: tests/coverage.md.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}

cmake -S . -B build-cov -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=OFF -DAFEHAL_SANITIZE=
cmake --build build-cov -j "$jobs"
find build-cov -name '*.gcda' -delete
AFEHAL_SOAK_FRAMES=20000 ctest --test-dir build-cov --output-on-failure -j "$jobs" -LE thread \
  -E exported_symbols # gcov adds its own dynamic symbols to the library

gcovr --root . --object-directory build-cov \
  --filter 'platform/' --filter 'afe/' --filter 'chip/' \
  --exclude-directories 'build-cov/CMakeFiles/[0-9]' \
  --exclude-unreachable-branches --exclude-throw-branches \
  --print-summary --fail-under-line 90
