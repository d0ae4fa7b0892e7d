#!/usr/bin/env bash
# Notification latency and CPU per notification on the BlueZ D-Bus path:
# PlenkKit (StartNotify and AcquireNotify) against a minimal bleak client, each
# in turn on the same fake bluetoothd (its own process on a private bus)
# streaming sequence-numbered weights at 100 Hz and 1 kHz. Prints Markdown
# table rows (bench/notify_stats.py explains the columns).
#
#   bash scripts/build.sh release && bash bench/bluez_notify.sh [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${PLENK_BUILD_DIR:-$root/build/release}
seconds=${1:-10}
# PLENK_FAKE_BUILD_DIR takes the fake bluetoothd from another build, to tell a
# change of the client from a change of the fake it is measured against.
fake=${PLENK_FAKE_BUILD_DIR:-$build}/tests/fakebluez/fake-bluetoothd
client=$build/bench/bluez_notify_bench
python=/usr/bin/python3  # Debian's, with python3-bleak
for needed in "$fake" "$client"; do
  [ -x "$needed" ] || { echo "missing $needed: build the release preset first" >&2; exit 2; }
done
work=$(mktemp -d)
fake_pid=
cleanup() {
  [ -n "$fake_pid" ] && kill "$fake_pid" 2>/dev/null && wait "$fake_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

echo "| client | rate Hz | notifications | p50 µs | p99 µs | max µs | client CPU µs/notification | bus CPU µs/notification | lost/repeated |"
echo "|---|---|---|---|---|---|---|---|---|"
for rate in 100 1000; do
  coproc FAKE { exec "$fake" --private --scale "Plenk Scale" --rate "$rate" --sequence --stamps "$work/stamps.$rate"; }
  fake_pid=$FAKE_PID
  read -r address <&"${FAKE[0]}" || { echo "the fake bluetoothd did not start" >&2; exit 1; }
  BENCH_BUS_PID=$(pgrep -P "$fake_pid" dbus-daemon)
  export DBUS_SYSTEM_BUS_ADDRESS=$address BENCH_BUS_PID
  for run in plenkkit-start plenkkit-acquire bleak; do
    out=$work/$run.$rate
    case $run in
      plenkkit-start) PLENK_BACKEND=bluez PLENK_BLUEZ_NOTIFY=start "$client" "$out" "$seconds" ;;
      plenkkit-acquire) PLENK_BACKEND=bluez PLENK_BLUEZ_NOTIFY=acquire "$client" "$out" "$seconds" ;;
      bleak) "$python" "$root/bench/bleak_client.py" --duration "$seconds" --out "$out" ;;
    esac
  done
  # The fake writes its emission stamps when it stops.
  kill "$fake_pid"
  wait "$fake_pid" 2>/dev/null || true
  fake_pid=
  for run in plenkkit-start plenkkit-acquire bleak; do
    "$python" "$root/bench/notify_stats.py" "$work/stamps.$rate" "$work/$run.$rate" "$run" "$rate"
  done
done
