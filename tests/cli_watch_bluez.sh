#!/usr/bin/env bash
# plenk watch on the BlueZ backend, against the fake bluetoothd on a private
# bus: the default backend finds the scale, tares it and streams weights in
# both formats, shows a dropped link coming back; an adapter that does not exist and a bus without bluetoothd
# end with status 3 and advice.
set -euo pipefail
source "$(dirname "$0")/support/cli.sh"
out=$(mktemp)
err=$(mktemp)
trap 'stop_fake; rm -f "$out" "$err"' EXIT
fail() { echo "FAIL: $*"; cat "$out" "$err"; exit 1; }

# 1. Both weight formats, by the advertised name; the library's default backend.
while IFS='|' read -r name format; do
  start_fake --scale "$name" --format "$format" --rate 20
  timeout 30 "$plenk" --json watch --duration 4 >"$out" 2>"$err" || fail "$format: exit status $?"
  grep -v -m1 '"event":"state"' "$out" | grep -qx '{"event":"connected"}' || fail "$format: not connected first"
  grep -q '{"event":"battery","value":85}' "$out" || fail "$format: no battery reading"
  weights=$(grep -c '"event":"weight"' "$out")
  [ "$weights" -ge 30 ] || fail "$format: only $weights weights in about 3 s at 20 Hz"
  # Tared on connection, nothing poured yet in the first second: close to zero.
  grep -m1 '"event":"weight"' "$out" | grep -Eq '"value":-?0(\.[0-9]+)?(e-?[0-9]+)?\}' ||
    fail "$format: first weight not near zero"
  grep -v '"event":"state"' "$out" | tail -n1 | grep -qx '{"event":"disconnected"}' || fail "$format: no clean end"
  stop_fake
done <<'TABLE'
Plenk Scale|binary
Coffee Scale|text
TABLE

# 2. A link loss: the state shows the held link being brought back, and weights flow again.
start_fake --rate 20
"$plenk" --json watch --duration 8 >"$out" 2>"$err" &
watch_pid=$!
for _ in $(seq 1 100); do grep -q '"event":"weight"' "$out" && break; sleep 0.1; done
kill -USR1 "$fake_pid"
wait "$watch_pid" || fail "reconnect: exit status $?"
stop_fake
grep '"event":"state"' "$out" | grep -A1 '"reconnecting"' | tail -n1 | grep -q '"connected"' ||
  fail "reconnect: no reconnecting state followed by connected"
sed -n '/"reconnecting"/,$p' "$out" | grep -c '"event":"weight"' >/dev/null || fail "reconnect: no weights after the link came back"

# 3. No usable radio: status 3, one line naming the cause and --sim.
start_fake
while IFS='|' read -r pattern bus args; do
  set +e
  # shellcheck disable=SC2086
  DBUS_SYSTEM_BUS_ADDRESS=${bus:-$DBUS_SYSTEM_BUS_ADDRESS} timeout 20 "$plenk" watch $args >"$out" 2>"$err"
  status=$?
  set -e
  [ "$status" -eq 3 ] && [ "$(grep -c '' "$err")" -eq 1 ] && grep -q -- "$pattern" "$err" && grep -q -- "--sim" "$err" ||
    fail "watch $args: status $status, stderr: $(cat "$err")"
done <<'TABLE'
no Bluetooth adapter 'hci9'||--adapter hci9
through bluez|unix:path=/nonexistent/socket|--backend bluez
TABLE
echo "cli watch on bluez: ok"
