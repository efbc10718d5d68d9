#!/usr/bin/env bash
# Sets up, builds the library, installs it into ./out and prints its version.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake --preset linux >/dev/null
cmake --build --preset linux --target tovra
cmake --install build/linux --prefix "$PWD/out" >/dev/null

export PKG_CONFIG_PATH="$PWD/out/lib/pkgconfig"
cc examples/print_version.c $(pkg-config --cflags --libs tovra) -Wl,-rpath,"$PWD/out/lib" -o out/print_version
./out/print_version
