#!/usr/bin/env bash
# Puts a simulated reader on a pseudo-terminal and maps a wine COM port to it ("start"),
# or takes both away again ("stop"). Used by the Windows suite under wine.
#   wine_com_port.sh start|stop SIMULATOR PORT STATE
set -u
action=$1 simulator=$2 port=$3 state=$4
prefix=${WINEPREFIX:-$HOME/.wine}
link="$prefix/dosdevices/$(echo "$port" | tr 'A-Z' 'a-z')"

stop() {
  [ -f "$state.pid" ] && kill "$(cat "$state.pid")" 2>/dev/null
  rm -f "$link" "$state.pid" "$state.out"
}

case $action in
start)
  stop
  "$simulator" --pty 9600:8E1 >"$state.out" 2>/dev/null &
  echo $! >"$state.pid"
  for _ in $(seq 200); do
    [ -s "$state.out" ] && break
    sleep 0.05
  done
  path=$(head -n 1 "$state.out")
  if [ -z "$path" ]; then
    echo "the simulator gave no terminal"
    stop
    exit 1
  fi
  mkdir -p "$prefix/dosdevices"
  ln -sfn "$path" "$link"
  echo "$port is $path"
  ;;
stop)
  stop
  ;;
esac
