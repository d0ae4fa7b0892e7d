#!/usr/bin/env bash
# The end-to-end run inside the guest, on the real kernel Bluetooth stack and
# bluetoothd: plenk-emulator serves the scale on hci1, the library uses hci0.
#   1. "Plenk Scale", binary weights, unconfigured: the client's whole scenario
#      (auto-connect by name, tare, weights, battery, configuration, host
#      disconnect, picker, firmware link drop held by continuous connection).
#   2. "Coffee Scale", text weights: connect, tare, weights.
#   3. Every command of the plenk tool reaches the emulator as its frames.
# Needs PLENK_BUILD_DIR and REALSTACK_RESULTS (set by the guest's init).
set -uo pipefail
build=${PLENK_BUILD_DIR:?} results=${REALSTACK_RESULTS:?}
emulator=$build/tools/plenk-emulator
client=$build/tests/realstack/client/plenk-realstack-client
plenk=$build/tools/plenk
failures=0
emulator_pid=

note() { echo "e2e: $*"; }
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

# start_emulator LOG ARGS...: waits until it advertises.
start_emulator() {
  local log=$1 && shift
  "$emulator" --adapter hci1 --readvertise 0.5 "$@" >"$log" 2>&1 </dev/null &
  emulator_pid=$!
  for _ in $(seq 1 100); do
    grep -q ' advertising ' "$log" && return 0
    kill -0 "$emulator_pid" 2>/dev/null || break
    sleep 0.1
  done
  fail "emulator-start: $(tail -3 "$log")"
  return 1
}

stop_emulator() {
  [ -n "$emulator_pid" ] || return 0
  kill -TERM "$emulator_pid" 2>/dev/null
  wait "$emulator_pid" 2>/dev/null
  emulator_pid=
}

# The central forgets the scale between runs, so a new name and GATT table
# are learnt afresh (the emulator keeps hci1's address).
forget_scale() {
  local device
  for device in $(busctl --system --list tree org.bluez 2>/dev/null | grep -E '^/org/bluez/hci0/dev_[0-9A-F_]+$'); do
    busctl --system call org.bluez /org/bluez/hci0 org.bluez.Adapter1 RemoveDevice o "$device" || true
  done
}

# run_client NAME LOG ARGS...: the client's steps, its verdict counted.
run_client() {
  local name=$1 log=$2 && shift 2
  if timeout 180 "$client" --adapter hci0 --name "$name" --emulator-log "$log" "$@" \
    >"$results/client-${name// /-}.log" 2>&1; then
    note "client against \"$name\" passed"
  else
    fail "client against \"$name\" (see client-${name// /-}.log)"
  fi
  grep -h '^FAIL\|^timing' "$results/client-${name// /-}.log" || true
}

# run_tool EMULATOR_LOG ARGS...: plenk on hci0; returns once bluetoothd has
# really let go of the link (it waits 2 s after a Disconnect), since a
# connection made while that is pending can lose its link mid-command.
run_tool() {
  local log=$1 links status && shift
  links=$(grep -c ' connected ' "$log")
  "$plenk" --adapter hci0 "$@" --timeout 20
  status=$?
  for _ in $(seq 1 100); do
    [ "$(grep -c ' disconnected ' "$log")" -gt "$links" ] && break
    sleep 0.1
  done
  return "$status"
}

# Each command in its own connection: the kit's tare, then the command's frames.
check_cli_commands() {
  local log=$1 verb frame expected got before status
  while IFS='|' read -r verb frame; do
    [ -n "$verb" ] || continue
    frame=${frame:-$verb}
    # shellcheck disable=SC2086
    expected=$(printf '%s\n' "$("$plenk" frame tare)" "$("$plenk" frame $frame)")
    before=$(wc -l <"$log")
    # shellcheck disable=SC2086
    run_tool "$log" $verb >>"$results/cli.log" 2>&1
    status=$?
    # Every write was answered before the tool ended, so its frames are logged.
    got=$(tail -n +"$((before + 1))" "$log" | sed -n 's/^ *[0-9.]* frame //p')
    if [ "$status" -eq 0 ] && [ "$got" = "$expected" ]; then
      echo "ok cli $verb"
    else
      fail "cli $verb: status $status, expected [$(echo $expected)] got [$(echo $got)]"
    fi
  done <<'TABLE'
tare
calibrate 7
unit 1
unit 0
unit 2|unit 1
display on
display off
led on
led off
engineering on
timer on --default-on|timer on --default-on
timer off
timer-auto-start on
power-enhanced off
sleep 2 0
advertising 3 1
fw-version
segment block 10 200|segment-block 10 200
segment preset 3|segment-preset 3
segment update|segment-update
segment release|segment-release
segment on|segment on
raw 0x09 1
config init|default-config
config sync|sync
fw-disconnect
dfu --yes|dfu
TABLE
}

trap stop_emulator EXIT

note "1. binary weights, unconfigured"
if start_emulator "$results/emulator-binary.log" --name "Plenk Scale" --format binary --battery 85; then
  run_client "Plenk Scale" "$results/emulator-binary.log" --battery 85
  stop_emulator
fi
forget_scale

note "2. text weights"
if start_emulator "$results/emulator-text.log" --name "Coffee Scale" --format text; then
  run_client "Coffee Scale" "$results/emulator-text.log" --weights-only
  stop_emulator
fi
forget_scale

note "3. the plenk tool's commands"
if start_emulator "$results/emulator-cli.log" --name "Plenk Scale" --no-pour; then
  if run_tool "$results/emulator-cli.log" --json battery >"$results/cli-battery.json" 2>>"$results/cli.log" &&
    grep -q '"value":85' "$results/cli-battery.json"; then
    echo "ok cli battery"
  else
    fail "cli battery: $(cat "$results/cli-battery.json")"
  fi
  check_cli_commands "$results/emulator-cli.log"
  stop_emulator
fi

note "$failures failure(s)"
[ "$failures" -eq 0 ]
