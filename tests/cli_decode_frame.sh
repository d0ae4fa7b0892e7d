#!/usr/bin/env bash
# The plenk tool's decode and frame verbs: output, --json, help, and bad input
# (one line on stderr, exit status 2).
set -uo pipefail
plenk=${PLENK_BINARY_DIR:?}/tools/plenk
[ -x "$plenk" ] || { echo "missing $plenk"; exit 1; }

failures=0
out="" err="" rc=0
run() {
  local errfile
  errfile=$(mktemp)
  out=$("$plenk" "$@" 2>"$errfile")
  rc=$?
  err=$(cat "$errfile")
  rm -f "$errfile"
}
fail() {
  echo "FAIL: plenk $*"
  failures=$((failures + 1))
}

# expect_out EXPECTED ARGS...: exit 0, exactly EXPECTED on stdout, nothing on stderr.
expect_out() {
  local expected=$1
  shift
  run "$@"
  if [ "$rc" -ne 0 ] || [ "$out" != "$expected" ] || [ -n "$err" ]; then
    fail "$* -> rc=$rc out=[$out] err=[$err], expected [$expected]"
  fi
}

# expect_usage_error PATTERN ARGS...: exit 2, no stdout, one stderr line matching PATTERN.
expect_usage_error() {
  local pattern=$1
  shift
  run "$@"
  local lines
  lines=$(printf '%s' "$err" | grep -c '')
  if [ "$rc" -ne 2 ] || [ -n "$out" ] || [ "$lines" -ne 1 ] || ! grep -qE -- "$pattern" <<<"$err"; then
    fail "$* -> rc=$rc out=[$out] err=[$err], expected status 2 and /$pattern/"
  fi
}

# ---- frame ----------------------------------------------------------------
expect_out "0a 31" frame timer-auto-start off
expect_out "0a 01" frame timer-auto-start on
expect_out "10" frame tare
expect_out "ca ff" frame calibrate 0xFF
expect_out "ca 07" frame calibrate 7
expect_out "03" frame unit 1
expect_out "02" frame unit 2
expect_out "02" frame unit -1
expect_out $'ec\ned' frame display on
expect_out "ee" frame display off
expect_out "01 01" frame led on
expect_out "01 10" frame engineering off
expect_out "0a 00" frame timer off
expect_out "0a 00" frame timer off --default-on
expect_out "0a 01" frame timer on
expect_out "0a 03" frame timer on --default-on
expect_out "0a 03" frame timer on default-on
expect_out "0b 01" frame power-enhanced on
expect_out "05 03" frame sleep 3 0
expect_out "06 00" frame sleep 4 1
expect_out "06 01" frame sleep 1 -1
expect_out "07 00" frame advertising -1 0
expect_out "08 02" frame advertising 2 1000
expect_out "f1" frame fw-disconnect
expect_out "04" frame sync
expect_out "aa 55" frame dfu
expect_out "00" frame fw-version
expect_out $'03\n0a 00\n06 00\n05 00\n08 00\n07 00\n09 01\n04' frame default-config
expect_out "e2 c8" frame segment-block 0x0a 200
expect_out "eb 04" frame segment-preset 4
expect_out "ea" frame segment-update
expect_out "ec" frame segment-release
expect_out "ed" frame segment on
expect_out "ee" frame segment off
expect_out "7f" frame raw 0x7f
expect_out "12 34" frame raw 0x12 0x34

# ---- decode ---------------------------------------------------------------
expect_out "1234.5" decode weight --name Plenk-01 00 39 30 00 ff
expect_out "-1234.5" decode weight --name Plenk-01 00:C7:CF:FF:FF
expect_out "-1" decode weight --name Plenk-01 00FFFFFF00
expect_out "123.4" decode weight --name "Coffee Scale" 3132333400
expect_out "123.4" decode weight --name "PlenkCoffee" 31323334
expect_out "0" decode weight --name Kitchen 00 39 30 00 ff
expect_out "0" decode weight --name Coffee ""
expect_out "1" decode button 02
expect_out "1234.5" decode weight --name Plenk-01 0x003930 00ff
expect_out "1234.5" decode weight --name Plenk-01 0x00 0x39 0x30 0x00 0xff
expect_out "1" decode button 0X02
expect_out "0" decode button 01ff
expect_out "none" decode button 03
run decode config 000000000000000000 90 12 34 56 0000
grep -qx "timerHighNibble: 249" <<<"$out" && grep -qx "timerAutoStart: true" <<<"$out" &&
  grep -qx "unconfigured: false" <<<"$out" && [ "$(grep -c '' <<<"$out")" -eq 12 ] ||
  fail "decode config text: $out"
run decode config 00000000000000000000ffffff0000
grep -qx "unconfigured: true" <<<"$out" || fail "decode config unconfigured: $out"

# ---- --json anywhere --------------------------------------------------------
expect_out '{"weight":1234.5}' --json decode weight --name Plenk-01 003930 00ff
expect_out '{"weight":1234.5}' decode weight --name Plenk-01 00 39 30 00 ff --json
expect_out '{"weight":-1}' decode --json weight --name Plenk-01 00FFFFFF00
expect_out '{"button":0}' --json decode button 01
expect_out '{"button":null}' decode button 00 --json
expect_out '{"command":"timer-auto-start","frames":[["0a","31"]]}' --json frame timer-auto-start off
expect_out '{"command":"display","frames":[["ec"],["ed"]]}' frame display on --json
expect_out '{"command":"tare","frames":[["10"]]}' frame --json tare
expect_out '{"timerOn":1,"timerDefaultOn":false,"timerBit2":0,"timerAutoStart":false,"byte12HighSet":true,"timerHighNibble":3,"byte10High":15,"byte10Low":15,"byte11High":15,"byte11Low":15,"byte12Low":15,"unconfigured":true}' \
  decode config --json 000000000000000000 31 ffffff 0000

# ---- bad input --------------------------------------------------------------
expect_usage_error "odd number of hex digits" decode button 012
expect_usage_error "odd number of hex digits" decode weight --name Plenk 0 39
expect_usage_error "'g' at offset 1 is not a hex digit" decode button 0g
expect_usage_error "no hex digits after '0x'" decode button 0x
expect_usage_error "unknown command 'nope'" frame nope
expect_usage_error "unknown command 'bogus'" bogus
expect_usage_error "missing command" frame
expect_usage_error "missing command" decode
expect_usage_error "missing command"
expect_usage_error "V is required" frame calibrate
expect_usage_error "MODE is required" frame sleep 1
expect_usage_error "HEX is required" decode button
expect_usage_error "name is required" decode weight 00
expect_usage_error "'256' is not a byte" frame calibrate 256
expect_usage_error "'-1' is not a byte" frame raw -1
expect_usage_error "'0x' is not a byte" frame raw 0x
expect_usage_error "'1.5' is not a byte" frame segment-preset 1.5
expect_usage_error "'0x100' is not a byte" frame segment-block 0 0x100
expect_usage_error "'2147483648' is not a 32-bit integer" frame sleep 2147483648 0
expect_usage_error "'x' is not a 32-bit integer" frame unit x
expect_usage_error "'maybe' is not 'on' or 'off'" frame led maybe
expect_usage_error "'default' is not 'default-on'" frame timer on default
expect_usage_error "not expected" frame tare extra
expect_usage_error "not expected" frame tare --bogus
expect_usage_error "hex digit" decode button $'0\n1'

# ---- help -------------------------------------------------------------------
run --version
[ "$rc" -eq 0 ] && grep -Eqx 'plenk [0-9]+\.[0-9]+\.[0-9]+' <<<"$out" && [ -z "$err" ] || fail "--version -> [$out]"
run --help
[ "$rc" -eq 0 ] && grep -q "Examples:" <<<"$out" && grep -q "frame" <<<"$out" || fail "--help"
run frame timer --help
[ "$rc" -eq 0 ] && grep -q -- "--default-on" <<<"$out" && grep -q "0a 03" <<<"$out" || fail "frame timer --help"
run decode weight --help
[ "$rc" -eq 0 ] && grep -q "Examples:" <<<"$out" || fail "decode weight --help"
# Every frame command's help runs its own example.
for command in tare calibrate unit display led engineering timer timer-auto-start power-enhanced sleep \
               advertising fw-disconnect sync dfu fw-version default-config segment-block segment-preset \
               segment-update segment-release segment raw; do
  run frame "$command" --help
  [ "$rc" -eq 0 ] && grep -q "Example:" <<<"$out" || fail "frame $command --help"
done

if [ "$failures" -ne 0 ]; then
  echo "$failures failure(s)"
  exit 1
fi
echo "all CLI checks passed"
