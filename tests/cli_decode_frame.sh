#!/usr/bin/env bash
# The plenk tool's decode and frame verbs: output, --json, help, and bad input
# (one line on stderr, exit status 2). Each table row is "expected|arguments";
# arguments are shell words, the expected output may hold \n.
set -uo pipefail
source "$(dirname "$0")/support/cli.sh"

# Exit 0, exactly the expected text on stdout, nothing on stderr.
while IFS='|' read -r expected args; do
  eval "run $args"
  expected=$(printf '%b' "$expected")
  [ "$rc" -eq 0 ] && [ "$out" = "$expected" ] && [ -z "$err" ] ||
    fail "$args -> rc=$rc out=[$out] err=[$err], expected [$expected]"
done <<'TABLE'
0a 31|frame timer-auto-start off
10|frame tare
ca ff|frame calibrate 0xFF
03|frame unit 1
02|frame unit -1
ec\ned|frame display on
ee|frame display off
01 01|frame led on
01 10|frame engineering off
0a 00|frame timer off --default-on
0a 01|frame timer on
0a 03|frame timer on --default-on
0a 03|frame timer on default-on
0b 01|frame power-enhanced on
05 03|frame sleep 3 0
08 02|frame advertising 2 1000
f1|frame fw-disconnect
04|frame sync
aa 55|frame dfu
00|frame fw-version
03\n0a 00\n06 00\n05 00\n08 00\n07 00\n09 01\n04|frame default-config
e2 c8|frame segment-block 0x0a 200
eb 04|frame segment-preset 4
ea|frame segment-update
ec|frame segment-release
ed|frame segment on
12 34|frame raw 0x12 0x34
1234.5|decode weight --name Plenk-01 00 39 30 00 ff
123.4|decode weight --name "Coffee Scale" 3132333400
123.4|decode weight --name PlenkCoffee 31323334
0|decode weight --name Kitchen 00 39 30 00 ff
0|decode weight --name Coffee ""
1|decode button 0X02
0|decode button 01ff
none|decode button 03
{"weight":1234.5}|--json decode weight --name Plenk-01 003930 00ff
{"weight":1234.5}|decode weight --name Plenk-01 00 39 30 00 ff --json
{"button":null}|decode button 00 --json
{"command":"display","frames":[["ec"],["ed"]]}|frame display on --json
{"command":"tare","frames":[["10"]]}|frame --json tare
{"timerOn":1,"timerDefaultOn":false,"timerBit2":0,"timerAutoStart":false,"byte12HighSet":true,"timerHighNibble":3,"byte10High":15,"byte10Low":15,"byte11High":15,"byte11Low":15,"byte12Low":15,"unconfigured":true}|decode config --json 000000000000000000 31 ffffff 0000
TABLE
run decode config 000000000000000000 90 12 34 56 0000
grep -qx "timerHighNibble: 249" <<<"$out" && grep -qx "timerAutoStart: true" <<<"$out" &&
  grep -qx "unconfigured: false" <<<"$out" && [ "$(grep -c '' <<<"$out")" -eq 12 ] ||
  fail "decode config text: $out"

# Exit 2, nothing on stdout, one stderr line matching the pattern.
while IFS='|' read -r pattern args; do
  eval "run $args"
  [ "$rc" -eq 2 ] && [ -z "$out" ] && [ "$(printf '%s' "$err" | grep -c '')" -eq 1 ] &&
    grep -qE -- "$pattern" <<<"$err" || fail "$args -> rc=$rc out=[$out] err=[$err], expected status 2 and /$pattern/"
done <<'TABLE'
odd number of hex digits|decode weight --name Plenk 0 39
'g' at offset 1 is not a hex digit|decode button 0g
no hex digits after '0x'|decode button 0x
unknown command 'nope'|frame nope
unknown command 'bogus'|bogus
missing command|frame
missing command|decode
missing command|
V is required|frame calibrate
MODE is required|frame sleep 1
HEX is required|decode button
name is required|decode weight 00
'256' is not a byte|frame calibrate 256
'-1' is not a byte|frame raw -1
'0x' is not a byte|frame raw 0x
'1.5' is not a byte|frame segment-preset 1.5
'0x100' is not a byte|frame segment-block 0 0x100
'2147483648' is not a 32-bit integer|frame sleep 2147483648 0
'x' is not a 32-bit integer|frame unit x
'maybe' is not 'on' or 'off'|frame led maybe
'default' is not 'default-on'|frame timer on default
not expected|frame tare extra
not expected|frame tare --bogus
hex digit|decode button $'0\n1'
TABLE

# Help: the version, the tool's examples, frame timer's shows its output (every frame and
# decode verb's example: the completion test, which walks the help).
run --version
[ "$rc" -eq 0 ] && grep -Eqx 'plenk [0-9]+\.[0-9]+\.[0-9]+' <<<"$out" && [ -z "$err" ] || fail "--version -> [$out]"
while IFS='|' read -r pattern args; do
  eval "run $args --help"
  [ "$rc" -eq 0 ] && grep -q -- "$pattern" <<<"$out" || fail "$args --help"
done <<'TABLE'
Examples:|
0a 03|frame timer
TABLE

checks_done "cli decode and frame"
