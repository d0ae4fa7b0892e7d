#!/usr/bin/env bash
# The harness's own scenario: proves the guest's stack without any PlenkKit code. Both adapters are
# powered; hci1 advertises a name through bluetoothd's LEAdvertisingManager1 and hci0's LE discovery
# (SetDiscoveryFilter with Transport "le", then StartDiscovery) finds it.
# bluetoothctl holds the advertisement and the discovery session, so this script feeds it commands
# and checks each effect on D-Bus before the next.
set -euo pipefail
results=${REALSTACK_RESULTS:?run through tests/realstack/run.sh}
name=PlenkSmoke

bluez() { dbus-send --system --print-reply --dest=org.bluez "$@"; }
# Prints the value of PROPERTY of INTERFACE at PATH (the last word dbus-send prints for it).
prop() {
  bluez "$1" org.freedesktop.DBus.Properties.Get "string:org.bluez.$2" "string:$3" 2>/dev/null |
    awk 'NR > 1 { value = $NF } END { gsub(/"/, "", value); print value }'
}
fail() {
  echo "smoke: FAIL: $*" >&2
  exit 1
}
wait_for() { # SECONDS COMMAND...
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

for hci in hci0 hci1; do
  [ "$(prop "/org/bluez/$hci" Adapter1 Powered)" = true ] || fail "$hci is not powered"
done
central=$(prop /org/bluez/hci0 Adapter1 Address) || fail "cannot read hci0's address"
peripheral=$(prop /org/bluez/hci1 Adapter1 Address) || fail "cannot read hci1's address"
echo "smoke: hci0 $central and hci1 $peripheral powered"
device=/org/bluez/hci0/dev_${peripheral//:/_}

advertising() {
  local active
  active=$(prop /org/bluez/hci1 LEAdvertisingManager1 ActiveInstances)
  [ "${active:-0}" -ge 1 ]
}
discovering() { [ "$(prop /org/bluez/hci0 Adapter1 Discovering)" = true ]; }
found() { [ "$(prop "$device" Device1 Name)" = "$name" ]; }

# Writes bluetoothctl's commands; its own checks fail the pipeline. It always ends with "quit".
# Discovery starts first: btvirt hands a scanner each advertisement once, when scanning or
# advertising is enabled, and the kernel drops a report that beats its own "discovery started".
drive() {
  trap 'echo quit' EXIT
  echo "select $central"
  echo "menu scan"
  echo "transport le"
  echo "back"
  echo "scan on"
  wait_for 20 discovering || fail "hci0 is not discovering 20 s after 'scan on'"
  echo "smoke: hci0 discovers (LE)" >&2
  echo "select $peripheral"
  echo "menu advertise"
  echo "name $name"
  echo "back"
  echo "advertise peripheral"
  local start=$EPOCHREALTIME
  wait_for 20 advertising || fail "hci1 has no active advertisement after 20 s"
  wait_for 20 found || fail "hci0's discovery did not find '$name' at $peripheral within 20 s"
  awk -v s="$start" -v e="$EPOCHREALTIME" -v n="$name" -v a="$peripheral" \
    'BEGIN { printf "smoke: hci0 found \x27%s\x27 at %s %.2f s after hci1 was told to advertise\n", n, a, e - s }' >&2
}

drive | timeout 60 bluetoothctl >"$results/bluetoothctl.log" 2>&1 ||
  fail "the bluetoothctl session failed (statuses ${PIPESTATUS[*]}); see bluetoothctl.log"
echo "smoke: PASS"
