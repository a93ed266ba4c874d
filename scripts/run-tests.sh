#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test:
#  1. GCC with AddressSanitizer and UndefinedBehaviorSanitizer: all suites;
#  2. Clang with warnings as errors: the build, and all suites again;
#  3. GCC with ThreadSanitizer: the two-thread soak test;
#  4. Clang with ASan and UBSan: each fuzz target for 30 s (scripts/fuzz-smoke.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DAFEHAL_SANITIZE=address,undefined
cmake --build build-asan -j "$jobs"
ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE thread

cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-clang -j "$jobs"
ctest --test-dir build-clang --output-on-failure -j "$jobs" -LE thread

cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAFEHAL_SANITIZE=thread \
  -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=OFF
cmake --build build-tsan -j "$jobs"
ctest --test-dir build-tsan --output-on-failure -L thread

# 4. Fuzz smoke: each libFuzzer target 30 s over its seed corpus (clang, ASan+UBSan).
scripts/fuzz-smoke.sh
