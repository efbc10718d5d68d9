#!/usr/bin/env bash
# Sets up, builds the library and its demo, installs the library into ./out and runs the
# demo: the library talking to the built-in reader simulator on loopback.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

cmake --preset linux -DCMAKE_INSTALL_PREFIX="$PWD/out" >/dev/null
cmake --build --preset linux --target tovra zkcom zkudp tovra-demo tovra_cli
cmake --install build/linux >/dev/null

# The installed library, used the way an application uses it.
export PKG_CONFIG_PATH="$PWD/out/lib/pkgconfig"
cc examples/print_version.c $(pkg-config --cflags --libs tovra) -Wl,-rpath,"$PWD/out/lib" -o out/print_version
./out/print_version
echo
build/linux/bin/tovra-demo

# The command-line tool, installed into ./out/bin: one exchange with its own simulator.
echo
sim_out=$(mktemp)
out/bin/tovra sim --port 0 >"$sim_out" &
sim=$!
trap 'kill $sim 2>/dev/null || true; rm -f "$sim_out"' EXIT
for _ in $(seq 100); do grep -q '^listening on ' "$sim_out" && break; sleep 0.1; done
port=$(sed -n '1s/^listening on 127\.0\.0\.1://p' "$sim_out")
echo "\$ tovra transceive tcp:IPAddress=127.0.0.1:Port=$port 65 00"
out/bin/tovra transceive "tcp:IPAddress=127.0.0.1:Port=$port" 65 00
