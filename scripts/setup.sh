#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need (run as root).
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config binutils
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine64
  dpkg-dev file
  python3 python3-pytest python3-venv python3-pip python3-setuptools python3-wheel
  doxygen
  tshark
  libcli11-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "== Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
