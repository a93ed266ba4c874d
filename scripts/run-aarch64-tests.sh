#!/usr/bin/env bash
# Cross-builds the frame CRC and conversion tests (and the frame parser's
# suite) for AArch64 and runs them under qemu-user: every target the
# emulated CPU runs, and the frame parser's suite again on the portable path.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

build=build-aarch64
suites=(test_crc_paths test_convert_paths test_frame_parse)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=OFF
cmake --build "$build" -j "$(nproc)" --target "${suites[@]}"

run() {
  echo "aarch64: $* ${AFEHAL_TEST_SIMD:+(AFEHAL_TEST_SIMD=$AFEHAL_TEST_SIMD)}"
  qemu-aarch64 -L /usr/aarch64-linux-gnu "$@" --gtest_brief=1
}
for suite in "${suites[@]}"; do
  run "$build/tests/$suite"
done
AFEHAL_TEST_SIMD=portable run "$build/tests/test_frame_parse"
