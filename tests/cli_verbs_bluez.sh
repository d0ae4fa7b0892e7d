#!/usr/bin/env bash
# plenk's scale verbs on the BlueZ backend, each once, against the fake
# bluetoothd on a private bus: every frame the fake's scale recorded on its
# command characteristic, in order, and what each verb printed.
set -uo pipefail
source "$(dirname "$0")/support/cli.sh"
log=$(mktemp)
trap 'stop_fake; rm -f "$log"' EXIT
start_fake --writes "$log"

# The identifier the backend gives the scale, for --id below.
id=$(timeout 30 "$plenk" --backend bluez --json info | sed -n 's/.*"identifier":"\([^"]*\)".*/\1/p')
[ -n "$id" ] || fail "info --json gave no identifier"
expected="10;"

# Rows: the frames after the connection's tare (;-separated)|output regex|arguments.
# The scale starts unconfigured; dfu comes last (the scale restarts as "DfuTarg").
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

checks_done "cli verbs on bluez"
