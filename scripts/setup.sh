#!/usr/bin/env bash
# Installs what building and testing libafehal needs, from Debian's packages.
# Idempotent: packages already present are left alone.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format libclang-rt-14-dev binutils python3
  libgtest-dev libgmock-dev libbenchmark-dev libboost-dev libcli11-dev android-liblog-dev
  libpng-dev nlohmann-json3-dev
  pkg-config help2man dpkg-dev file
  # The frame CRC and conversion per instruction set.
  libhwy-dev
  # AArch64: cross-build and run the tests under qemu (scripts/run-aarch64-tests.sh).
  crossbuild-essential-arm64 qemu-user
  libhwy-dev:arm64 libgtest-dev:arm64 android-liblog-dev:arm64
  gcovr
)

# The arm64 packages come from Debian's multiarch archive.
new_architecture=0
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  dpkg --add-architecture arm64
  new_architecture=1
fi

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -gt 0 ] || [ "$new_architecture" = 1 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "setup: all packages present"
fi
