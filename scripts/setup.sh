#!/usr/bin/env bash
# Installs what building and testing libafehal needs, from Debian's packages.
# Idempotent: packages already present are left alone.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format libclang-rt-14-dev binutils python3
  libgtest-dev libgmock-dev libbenchmark-dev libboost-dev libcli11-dev android-liblog-dev
  libpng-dev nlohmann-json3-dev
  gcovr
)

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "setup: all packages present"
fi
