#!/usr/bin/env bash
# Sets up, builds the library and its demo, installs the library into ./out and runs the
# demo: the library talking to the built-in reader simulator on loopback.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake --preset linux -DCMAKE_INSTALL_PREFIX="$PWD/out" >/dev/null
cmake --build --preset linux --target tovra tovra-demo
cmake --install build/linux >/dev/null

# The installed library, used the way an application uses it.
export PKG_CONFIG_PATH="$PWD/out/lib/pkgconfig"
cc examples/print_version.c $(pkg-config --cflags --libs tovra) -Wl,-rpath,"$PWD/out/lib" -o out/print_version
./out/print_version
echo
build/linux/bin/tovra-demo
