#!/usr/bin/env bash
# plenk's verbs on the simulated scales: scan and watch, the frames each scale
# received for the other verbs (the simulator's own record, shown by --verbose),
# the printed result, the JSON shape, and the exit status of every way a verb can fail.
set -uo pipefail
source "$(dirname "$0")/support/cli.sh"
# The frames the named scale received, one per line ("10", "ca 64").
frames() { sed -n "s/^plenk: sim: '$1' received //p" <<<"$err"; }

# 0. scan: one JSON object per scale and report; the scan restarts every 2 s, so a
#    3 s scan reports each scale twice, the second time about 2 s later.
id1=C0FFEE00-5CA1-4E00-8000-000000000001 id2=C0FFEE00-5CA1-4E00-8000-000000000002
run --sim scan --duration 3 --json
[ "$rc" -eq 0 ] && [ "$(grep -c '' <<<"$out")" -eq 4 ] || fail "scan --json -> rc=$rc [$out]"
for scale in "Plenk Scale|$id1" "Coffee Scale|$id2"; do
  name=${scale%|*} id=${scale#*|}
  pattern="^\{\"event\":\"scale\",\"name\":\"$name\",\"identifier\":\"$id\",\"rssi\":-58,\"lastSeen\":[0-9]+(\.[0-9]+)?\}$"
  last=$(grep "$id" <<<"$out" | tail -n1 | sed 's/.*"lastSeen":\([0-9.]*\)}/\1/')
  [ "$(grep -Ec "$pattern" <<<"$out")" -eq 2 ] && awk -v s="$last" 'BEGIN { exit !(s >= 1.5 && s < 3) }' ||
    fail "scan --json: '$name' not reported twice in shape, last seen at $last s"
done
# Text without a terminal: a line per scale found, then the table; none found is no error.
run --sim scan --duration 1
[ "$rc" -eq 0 ] && grep -qx "found Plenk Scale, $id1, -58 dBm" <<<"$out" && grep -Eq '^NAME +IDENTIFIER +RSSI +LAST SEEN$' <<<"$out" &&
  grep -Eqx "Coffee Scale +$id2 +-58 dBm +now" <<<"$out" && ! grep -q $'\e' <<<"$out" || fail "scan -> rc=$rc [$out]"
run --sim --sim-fault no-scale scan --duration 1
[ "$rc" -eq 0 ] && grep -qx 'no scales found' <<<"$out" || fail "scan, none in range -> rc=$rc [$out]"

# watch: connects, streams, ends by itself after --duration and on Ctrl-C, disconnecting cleanly.
run --sim watch --duration 4 --json
events=$(grep -v '"event":"state"' <<<"$out")
weights=$(grep -c '"event":"weight"' <<<"$out")
[ "$rc" -eq 0 ] && [ "$weights" -ge 20 ] && [ "$(sed -n 1p <<<"$events")" = '{"event":"connected"}' ] &&
  [ "$(tail -n1 <<<"$events")" = '{"event":"disconnected"}' ] &&
  [ "$(grep '"event":"state"' <<<"$out" | tail -n2 | tr -d '\n')" = \
    '{"event":"state","value":"connected"}{"event":"state","value":"disconnected"}' ] &&
  grep -q '{"event":"battery","value":85}' <<<"$out" && grep -Eq '^\{"event":"weight","value":-?[0-9.e-]+\}$' <<<"$out" ||
  fail "watch --json -> rc=$rc, $weights weights in 4 s at 10 Hz: $out"
stream=$(mktemp)
trap 'rm -f "$stream"' EXIT
"$plenk" watch --sim --json >"$stream" &
pid=$!
for _ in $(seq 1 100); do grep -q '"event":"weight"' "$stream" && break; sleep 0.1; done
kill -INT "$pid"
wait "$pid"
rc=$?
[ "$rc" -eq 0 ] && grep -v '"event":"state"' "$stream" | tail -n1 | grep -qx '{"event":"disconnected"}' ||
  fail "watch after Ctrl-C -> rc=$rc: $(cat "$stream")"
# Text: grams with one decimal, state and battery; --verbose puts the library's
# diagnostics on stderr, one line each. An explicit --sim wins over PLENK_BACKEND.
PLENK_BACKEND=nosuch run watch --sim --duration 2 --verbose
[ "$rc" -eq 0 ] && grep -Eq '^ *-?[0-9]+\.[0-9] g  connected +battery 85%$' <<<"$out" &&
  ! grep -Evq '^ *(-?[0-9]+\.[0-9]|--\.-) g  [A-Za-z ]+ +battery [0-9-]+%?$' <<<"$out" &&
  grep -q '^plenk: library: .*disconnection' <<<"$err" || fail "watch --verbose -> rc=$rc [$out] [$err]"

# 1. Commands and exchanges: every frame after the tare of the connection,
#    and the first line printed. Rows: frames (;-separated)|output regex|arguments.
while IFS='|' read -r expected pattern args; do
  eval "run --sim --verbose $args"
  got=$(frames "Plenk Scale" | tail -n +2 | paste -sd ';')
  first=$(frames "Plenk Scale" | sed -n 1p)
  [ "$rc" -eq 0 ] && [ "$first" = "10" ] && [ "$got" = "$expected" ] && grep -Eq "$pattern" <<<"$out" ||
    fail "$args -> rc=$rc frames=[$first;$got] out=[$out], expected [10;$expected] /$pattern/; stderr: $err"
done <<'TABLE'
10|^tare: sent to 'Plenk Scale'$|tare
ca 64|^calibrate: sent|calibrate 100
03|^unit: sent|unit 2
02|^unit: sent|unit 0
ec;ed|^display: sent|display on
ee|^display: sent|display off
01 01|^led: sent|led on
01 10|^engineering: sent|engineering off
0a 03|^timer: sent|timer on --default-on
0a 00|^timer: sent|timer off
0a 31|^timer-auto-start: sent|timer-auto-start off
0b 01|^power-enhanced: sent|power-enhanced on
06 02|^sleep: sent|sleep 2 1
07 03|^advertising: sent|advertising 3 0
f1|^fw-disconnect: sent|fw-disconnect
00|^fw-version: sent|fw-version
e2 42|^segment block: sent|segment block 10 0x42
eb 04|^segment preset: sent|segment preset 4
ea|^segment update: sent|segment update
ec|^segment release: sent|segment release
ed|^segment on: sent|segment on
ee|^segment off: sent|segment off
ca 07|^raw: sent|raw 0xca 7
33|^raw: sent|raw 0x33
aa 55|^dfu: 'Plenk Scale' restarts in firmware-update mode|dfu --yes
04|^config sync: write 1 accepted$|config sync
03;0a 00;06 00;05 00;08 00;07 00;09 01;04|^config init: the scale is unconfigured|config init
|^battery: 85%$|battery
|^timerOn: 0$|config read
|^([0-9a-f]{2} ){10}ff ff ff [0-9a-f]{2} [0-9a-f]{2}$|config read --raw
|^firmwareRevision: 1.2.3$|info
TABLE

# 2. The other scale by name and by identifier; JSON objects, one per line.
while IFS='|' read -r pattern args; do
  eval "run --sim --json $args"
  [ "$rc" -eq 0 ] && [ -z "$err" ] && grep -Eqx "$pattern" <<<"$out" ||
    fail "--json $args -> rc=$rc out=[$out] err=[$err], expected /$pattern/"
done <<'TABLE'
\{"event":"sent","command":"tare","scale":"Coffee Scale"\}|tare --name Coffee
\{"event":"battery","value":85,"scale":"Coffee Scale"\}|battery --id c0ffee00-5ca1-4e00-8000-000000000002
\{"event":"configuration","timerOn":0,"timerDefaultOn":0,"timerBit2":0,"timerAutoStart":[01],"byte12HighSet":[01],"timerHighNibble":-?[0-9]+,"byte10High":-?[0-9]+,"byte10Low":-?[0-9]+,"byte11High":-?[0-9]+,"byte11Low":-?[0-9]+,"byte12Low":-?[0-9]+\}|config read
\{"event":"configuration","raw":"([0-9a-f]{2} ){14}[0-9a-f]{2}"\}|config read --raw
\{"event":"info","name":"Coffee Scale","identifier":"C0FFEE00-5CA1-4E00-8000-000000000002","firmwareRevision":"2.0.1","manufacturer":null,"model":null,"hardwareRevision":null,"softwareRevision":null\}|info --name Coffee
TABLE
# A configured scale completes its initialisation once, with no write.
run --sim --json config init --name Coffee
[ "$(grep -c '"event":"write"' <<<"$out")" -eq 1 ] && grep -q '"event":"initializing","configured":true' <<<"$out" &&
  grep -qx '{"event":"initialized","configured":true}' <<<"$out" || fail "config init on a configured scale: $out"

# 3. Failures: status and the one line that explains it.
while IFS='|' read -r status pattern args; do
  eval "run --sim $args"
  [ "$rc" -eq "$status" ] && grep -q -- "$pattern" <<<"$(tail -n1 <<<"$err")" ||
    fail "$args -> rc=$rc (expected $status) stderr=[$err], expected /$pattern/"
done <<'TABLE'
4|no scale found: looked for a scale for 1 s|--sim-fault no-scale tare --timeout 1
4|looked for a scale whose name contains 'Nope'|battery --name Nope --timeout 0.5
5|connecting to 'Plenk Scale' failed (no error was reported)|--sim-fault connect-fails tare
5|RKErrorLEInvalidDeviceC (RKErrorDomain 108)|--sim-fault setup-fails battery
6|timed out connecting to 'Plenk Scale'|--sim-fault connect-hangs tare --timeout 1
6|did not answer (the battery level)|--sim-fault no-battery battery --timeout 1
7|refused 'tare': Error (CBATTErrorDomain 3)|--sim-fault write-fails tare
7|refused a read: RKErrorLEReadC (RKErrorDomain 109)|--sim-fault read-fails config read
TABLE
# With --json a failure is also an object on stdout.
run --sim --json --sim-fault no-scale info --timeout 0.5
[ "$rc" -eq 4 ] && grep -Eqx '\{"event":"failed","status":4,"message":"no scale found: [^"]+"\}' <<<"$out" ||
  fail "--json failure: rc=$rc out=[$out]"
# Ctrl-C during a one-shot verb: status 130, no scale left connecting.
"$plenk" --sim --sim-fault connect-hangs tare >/dev/null 2>&1 &
pid=$!
sleep 0.5
kill -INT "$pid"
wait "$pid"
rc=$?
[ "$rc" -eq 130 ] || fail "tare interrupted -> rc=$rc"

# 4. Bad input: one line on stderr, status 2, nothing connected.
while IFS='|' read -r pattern args; do
  eval "run --sim --verbose $args"
  [ "$rc" -eq 2 ] && [ -z "$out" ] && [ "$(grep -c '' <<<"$err")" -eq 1 ] && grep -q -- "$pattern" <<<"$err" ||
    fail "$args -> rc=$rc out=[$out] stderr=[$err], expected status 2 and /$pattern/"
done <<'TABLE'
V: '256' is not a byte|calibrate 256
N: 'x' is not a 32-bit integer|unit x
STATE: 'maybe' is not 'on' or 'off'|display maybe
MODE is required|sleep 1
missing command for 'plenk segment'|segment
V is required|segment block 1
C is required|raw
D: '0x100' is not a byte|raw 1 0x100
--id: 'nonsense' is not an identifier|tare --id nonsense
--timeout: '0' is not a number of seconds|tare --timeout 0
--name: the name text is empty|battery --name ''
missing command for 'plenk config'|config
without a terminal to ask on, add --yes|dfu
--sim-fault: 'bogus' is not one of none, no-scale|--sim-fault bogus tare
The following argument was not expected: extra|tare extra
'-1' is not a number of seconds|scan --duration=-1
--duration|scan --duration
cannot be combined with --backend 'nope'|watch --backend nope
'abc' is not a number of seconds|watch --duration abc
'1e400' is not a number of seconds|watch --duration 1e400
TABLE
while IFS='|' read -r pattern args; do
  eval "run $args"
  [ "$rc" -eq 2 ] && [ -z "$out" ] && grep -q -- "$pattern" <<<"$err" || fail "$args -> rc=$rc [$out] [$err]"
done <<'TABLE'
--sim-fault needs --sim|--sim-fault write-fails tare
unknown Bluetooth backend|--backend nosuch watch --duration 1
TABLE

checks_done "cli verbs"
