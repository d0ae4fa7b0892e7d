#!/usr/bin/env bash
# plenk on the BlueZ backend, against the fake bluetoothd on a private bus: scan
# lists the scale at each restart of the scan (others only with --all, a name
# holding a terminal escape harmlessly); watch tares and streams both weight
# formats and shows a dropped link coming back; every scale verb once, checked by
# the frames the fake's scale recorded; no usable radio is status 3 with advice.
set -uo pipefail
source "$(dirname "$0")/support/cli.sh"
log=$(mktemp)
trap 'stop_fake; rm -f "$log"' EXIT

# 1. scan; then, on the same bus, no usable radio: status 3, one line naming the cause and --sim.
start_fake --scale "Plenk Scale" --scale "Kettle" --scale $'Coffee\e[2J'
run scan --duration 3 --json
pattern='^\{"event":"scale","name":"Plenk Scale","identifier":"[0-9A-F-]{36}","rssi":-60,"lastSeen":[0-9.]+\}$'
[ "$rc" -eq 0 ] && [ "$(grep -Ec "$pattern" <<<"$out")" -ge 2 ] && ! grep -q Kettle <<<"$out" ||
  fail "scan --json -> rc=$rc [$out]"
run scan --all --duration 1
[ "$rc" -eq 0 ] && grep -Eq '^Kettle +[0-9A-F-]{36} +-60 dBm +now$' <<<"$out" &&
  grep -q '^found Coffee?\[2J, ' <<<"$out" && ! grep -q $'\e' <<<"$out" || fail "scan --all -> rc=$rc [$out]"
while IFS='|' read -r pattern bus args; do
  DBUS_SYSTEM_BUS_ADDRESS=${bus:-$DBUS_SYSTEM_BUS_ADDRESS} eval "run watch $args"
  [ "$rc" -eq 3 ] && [ "$(grep -c '' <<<"$err")" -eq 1 ] && grep -q -- "$pattern" <<<"$err" && grep -q -- "--sim" <<<"$err" ||
    fail "watch $args -> rc=$rc [$err]"
done <<'TABLE'
no Bluetooth adapter 'hci9'||--adapter hci9
through bluez|unix:path=/nonexistent/socket|--backend bluez
TABLE
stop_fake

# 2. watch, both weight formats, by the advertised name; the library's default backend.
while IFS='|' read -r name format; do
  start_fake --scale "$name" --format "$format" --rate 20
  run --json watch --duration 4
  stop_fake
  weights=$(grep -c '"event":"weight"' <<<"$out")
  # Tared on connection, nothing poured yet in the first second: close to zero.
  [ "$rc" -eq 0 ] && [ "$weights" -ge 30 ] && grep -q '{"event":"battery","value":85}' <<<"$out" &&
    grep -v -m1 '"event":"state"' <<<"$out" | grep -qx '{"event":"connected"}' &&
    grep -m1 '"event":"weight"' <<<"$out" | grep -Eq '"value":-?0(\.[0-9]+)?(e-?[0-9]+)?\}' &&
    grep -v '"event":"state"' <<<"$out" | tail -n1 | grep -qx '{"event":"disconnected"}' ||
    fail "watch $format -> rc=$rc, $weights weights in about 3 s at 20 Hz: $out"
done <<'TABLE'
Plenk Scale|binary
Coffee Scale|text
TABLE

# 3. A link loss: the state shows the held link being brought back, and weights flow again.
start_fake --rate 20
"$plenk" --json watch --duration 8 >"$log" 2>/dev/null &
watch_pid=$!
for _ in $(seq 1 100); do grep -q '"event":"weight"' "$log" && break; sleep 0.1; done
kill -USR1 "$fake_pid"
wait "$watch_pid" || fail "watch over a link loss: exit status $?"
stop_fake
grep '"event":"state"' "$log" | grep -A1 '"reconnecting"' | tail -n1 | grep -q '"connected"' &&
  sed -n '/"reconnecting"/,$p' "$log" | grep -c '"event":"weight"' >/dev/null ||
  fail "watch over a link loss: no reconnecting, connected, weights: $(cat "$log")"

# 4. Every verb. Rows: the frames after the connection's tare (;-separated)|output regex|arguments.
# The scale starts unconfigured; dfu comes last (the scale restarts as "DfuTarg").
start_fake --writes "$log"
id=$(timeout 30 "$plenk" --backend bluez --json info | sed -n 's/.*"identifier":"\([^"]*\)".*/\1/p')
[ -n "$id" ] || fail "info --json gave no identifier"
expected="10;"
while IFS='|' read -r frames pattern args; do
  eval "run --backend bluez $args"
  [ "$rc" -eq 0 ] && grep -Eq "$pattern" <<<"$out" || fail "$args -> rc=$rc [$out] [$err], expected /$pattern/"
  expected+="10;${frames:+$frames;}"
done <<'TABLE'
10|^tare: sent to 'Plenk Scale'$|tare
ca 64|^calibrate: sent|calibrate 100
03|^unit: sent|unit 1
ec;ed|^display: sent|display on
01 00|^led: sent|led off
01 11|^engineering: sent|engineering on
0a 01|^timer: sent|timer on
0a 01|^timer-auto-start: sent|timer-auto-start on
0b 00|^power-enhanced: sent|power-enhanced off
05 01|^sleep: sent|sleep 1 0
08 02|^advertising: sent|advertising 2 1
00|^fw-version: sent|fw-version
e3 42|^segment block: sent|segment block 3 66
eb 02|^segment preset: sent|segment preset 2
ea|^segment update: sent|segment update
ec|^segment release: sent|segment release
ed|^segment on: sent|segment on
ee|^segment off: sent|segment off
ca|^raw: sent|raw 0xca
04|^config sync: write 1 accepted|config sync
03;0a 00;06 00;05 00;08 00;07 00;09 01;04|^config init: the scale is configured$|config init
|^battery: 85%$|battery
|^timerOn: |config read
|^([0-9a-f]{2} ){14}[0-9a-f]{2}$|config read --raw
|^firmwareRevision: |info --name Plenk
|^battery: 85%$|battery --id "$id"
f1|^fw-disconnect: sent|fw-disconnect
aa 55|^dfu: 'Plenk Scale' restarts|dfu --yes
TABLE
stop_fake
got=$(awk '$2 == "EF80" { $1 = ""; $2 = ""; sub(/^  /, ""); printf "%s;", $0 }' "$log")
[ "$got" = "$expected" ] || fail "frames recorded by the fake:
  got      $got
  expected $expected"

checks_done "cli on bluez"
