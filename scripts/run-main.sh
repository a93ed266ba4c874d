#!/usr/bin/env bash
# Installs what is missing, builds, and runs afehal-tool against the
# simulated panel. Arguments replace the default tool command.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target afehal-tool
if [ $# -eq 0 ]; then
  set -- frames --sim --count 120
fi
exec build/tools/afehal-tool "$@"
