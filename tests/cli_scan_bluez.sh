#!/usr/bin/env bash
# plenk scan on the BlueZ backend, against the fake bluetoothd on a private
# bus: the scale is listed with its signal strength and heard again at each
# restart of the scan, other devices only with --all, and a name holding a
# terminal escape is printed harmlessly.
set -euo pipefail
source "$(dirname "$0")/support/cli.sh"
out=$(mktemp)
err=$(mktemp)
trap 'stop_fake; rm -f "$out" "$err"' EXIT
fail() { echo "FAIL: $*"; cat "$out" "$err"; exit 1; }

start_fake --scale "Plenk Scale" --scale "Kettle" --scale $'Coffee\e[2J'

# 1. JSON on the default backend: the scale at the fake's -60 dBm, reported
#    again after the scan's restart; the kettle is not a scale.
timeout 20 "$plenk" scan --duration 3 --json >"$out" 2>"$err" || fail "json: exit status $?"
pattern='^\{"event":"scale","name":"Plenk Scale","identifier":"[0-9A-F-]{36}","rssi":-60,"lastSeen":[0-9.]+\}$'
[ "$(grep -Ec "$pattern" "$out")" -ge 2 ] || fail "json: the scale not reported twice in shape"
grep -q Kettle "$out" && fail "json: a device that is no scale is listed"

# 2. Text with --all: every device; control characters in a name become '?'.
timeout 20 "$plenk" scan --all --duration 1 >"$out" 2>"$err" || fail "text: exit status $?"
grep -Eq '^Kettle +[0-9A-F-]{36} +-60 dBm +now$' "$out" || fail "text: no row for the kettle"
grep -q '^found Coffee?\[2J, ' "$out" || fail "text: the escape in a name was not neutralised"
grep -q $'\e' "$out" && fail "text: a terminal escape reached the output"
echo "cli scan on bluez: ok"
