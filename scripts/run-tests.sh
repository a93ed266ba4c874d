#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test:
#  1. GCC with AddressSanitizer and UndefinedBehaviorSanitizer: all suites;
#  2. Clang with warnings as errors: the build, and all suites again;
#  3. GCC with ThreadSanitizer: the two-thread soak tests;
#  4. the suites again under ASan with the frame CRC and conversion forced
#     onto the portable code;
#  5. AArch64: the frame CRC and conversion tests cross-built and run under qemu;
#  6. the installed library: CMake and pkg-config consumers, Debian packages,
#     Android.bp against CMake;
#  7. Release: the fault storm at full length (a million frames);
#  8. coverage of the library by the suites (gcovr summary, floor 90% lines);
#  9. Clang with ASan and UBSan: each fuzz target for 30 s (scripts/fuzz-smoke.sh).
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

# 4. The frame path's portable code, forced, must pass every suite too
# (the vector targets each pass test_crc_paths and test_convert_paths above).
AFEHAL_TEST_SIMD=portable ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE thread

# 5. AArch64, the phone's architecture: cross-built, run under qemu-user.
scripts/run-aarch64-tests.sh

# 6. The library as other projects take it: cmake --install into a staging
# prefix, consumers built with CMake and pkg-config, version errors, install
# over an older copy, the three Debian packages in a scratch root, and
# Android.bp's sources and flags against CMake's (scripts/test-install.sh).
JOBS=$jobs scripts/test-install.sh

# 7. The fault storm at full length: a million frames on the virtual clock,
#    Release build without sanitizers (the stages above run it shorter under
#    ASan+UBSan, and on the real clock under TSan).
cmake -S . -B build-soak -G Ninja -DCMAKE_BUILD_TYPE=Release -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=OFF
cmake --build build-soak -j "$jobs" --target test_soak
AFEHAL_SOAK_FRAMES=1000000 build-soak/tests/test_soak

# 8. Coverage of platform/, afe/ and chip/ by the suites: gcovr's per-file
#    table and summary; fails under 90% of lines (tests/coverage.md).
scripts/coverage.sh

# 9. Fuzz smoke: each libFuzzer target 30 s over its seed corpus (clang, ASan+UBSan).
scripts/fuzz-smoke.sh
