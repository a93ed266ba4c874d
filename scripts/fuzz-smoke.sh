#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan and UBSan and runs each
# over its seed corpus (fuzz/corpus/<target>) for FUZZ_SECONDS seconds
# (default 30). A crash, a sanitizer report, a leak, a hang or a broken
# invariant fails the script; the input that did it is left in
# build-fuzz/artifacts/. FUZZ_TARGETS picks targets (default: all five).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-30}
targets=${FUZZ_TARGETS:-frame fw_image limits host_data api}
build=build-fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DAFEHAL_SANITIZE=address,undefined \
  -DAFEHAL_FUZZ=ON -DAFEHAL_TESTS=OFF -DAFEHAL_BENCH=OFF -DAFEHAL_TOOLS=OFF
# shellcheck disable=SC2046
cmake --build "$build" -j "${JOBS:-$(nproc)}" --target $(printf 'fuzz_%s ' $targets)

mkdir -p "$build/artifacts"
for target in $targets; do
  mkdir -p "$build/work/$target"
  echo "fuzz: $target for ${seconds}s"
  # Call sequences are short: give them their full length from the start.
  limits=(-max_len=8192)
  if [ "$target" = api ]; then
    limits=(-max_len=256 -len_control=0)
  fi
  # New inputs go to the work folder; the seeds in the repository stay as they are.
  "$build/fuzz/fuzz_$target" "$build/work/$target" "fuzz/corpus/$target" \
    -max_total_time="$seconds" "${limits[@]}" -timeout=10 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" \
    >"$build/fuzz-$target.log" 2>&1 || {
    tail -n 60 "$build/fuzz-$target.log"
    exit 1
  }
  grep -E '^(Done|stat::number_of_executed_units|stat::average_exec_per_sec)' "$build/fuzz-$target.log"
done
