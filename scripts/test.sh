#!/usr/bin/env bash
# Sets up, builds and runs every test: Linux, AddressSanitizer + UndefinedBehaviorSanitizer,
# ThreadSanitizer, Windows under wine, the packages made from the Linux and Windows builds,
# and the fuzz targets for a bounded time each.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
passed=0
log=$(mktemp)
trap 'rm -f "$log"' EXIT

run_suite() {
  local preset=$1
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: test"
  ctest --preset "$preset" -j "$jobs" --output-on-failure | tee "$log"
  local count
  count=$(sed -n 's/.* tests passed, 0 tests failed out of \([0-9]*\).*/\1/p' "$log")
  passed=$((passed + ${count:-0}))
}

run_suite linux
run_suite asan
run_suite tsan

# Wine builds its prefix on first use: once, and to the end, before tests run in parallel.
# Then one wine server serves the whole suite: a server that exits between two test
# programs races the one the next program starts.
export WINEDEBUG=-all
/usr/lib/wine/wineserver -k 2>/dev/null || true # one left over from an earlier run
timeout 300 /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1 || true
timeout 120 /usr/lib/wine/wineserver -w || true
/usr/lib/wine/wineserver -p
# The first program on a new server starts wine's services; two first programs at once
# can hang on exit. One program alone goes first.
timeout 60 /usr/lib/wine/wine64 cmd /c exit >/dev/null 2>&1 || true
trap 'rm -f "$log"; /usr/lib/wine/wineserver -k 2>/dev/null || true' EXIT
run_suite windows
/usr/lib/wine/wineserver -k 2>/dev/null || true
trap 'rm -f "$log"' EXIT

echo "== packages: Debian packages and the Windows zip, unpacked and built against"
bash scripts/package_check.sh build/linux build/windows | tee "$log"
count=$(sed -n 's/^package check: \([0-9]*\) passed, 0 failed$/\1/p' "$log")
passed=$((passed + ${count:-0}))

echo "== fuzz: build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
fuzz_seconds=${TOVRA_FUZZ_SECONDS:-20}
for target in frame_fuzz parameter_fuzz tcp_receive_fuzz serial_frame_fuzz zkudp_datagram_fuzz; do
  corpus=$(mktemp -d)
  cp fuzz/corpus/"${target%_fuzz}"/* "$corpus"/
  echo "== fuzz: $target for ${fuzz_seconds}s"
  if ! build/fuzz/bin/$target -max_total_time="$fuzz_seconds" -print_final_stats=0 \
       -artifact_prefix="$corpus/" "$corpus" >"$corpus.log" 2>&1; then
    tail -n 60 "$corpus.log"
    echo "fuzz: $target failed"
    exit 1
  fi
  grep -E '^#[0-9]+ +DONE' "$corpus.log" || tail -n 2 "$corpus.log"
  rm -rf "$corpus" "$corpus.log"
  passed=$((passed + 1))
done

echo "all suites: $passed passed, 0 failed"
