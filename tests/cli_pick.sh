#!/usr/bin/env bash
# plenk pick in a real terminal (tmux): the list fills with
# the simulated scales, the arrows and Enter choose, Esc, q and Ctrl-C end it
# with their statuses, a failed connection keeps the list open, and every way
# out leaves the terminal as it was found. Without a terminal it refuses.
set -euo pipefail
source "$(dirname "$0")/support/cli.sh"
dir=$(mktemp -d)
tmx() { tmux -S "$dir/tmux" -f /dev/null "$@"; }  # a private server
trap 'stop_fake; tmx kill-server 2>/dev/null || true; rm -rf "$dir"' EXIT

fail() {
  echo "FAIL: $*"
  echo "--- screen:"; tmx capture-pane -p || true
  echo "--- stdout:"; cat "$dir/out" 2>/dev/null || true
  echo "--- stderr:"; cat "$dir/err" 2>/dev/null || true
  exit 1
}
screen() { tmx capture-pane -p; }
# Polls the screen (or a file) instead of sleeping a fixed time.
wait_screen() {
  for _ in $(seq 1 100); do grep -q <<<"$(screen)" -- "$1" && return 0; sleep 0.05; done
  fail "the screen never showed '$1'"
}

# Each run records the terminal's settings before and after, stdout, stderr
# and the exit status.
cat >"$dir/run.sh" <<EOF
stty -g >"$dir/before"
"$plenk" \${PLENK_WORLD:---sim} "\$@" >"$dir/out" 2>"$dir/err"
echo \$? >"$dir/status.new"
stty -g >"$dir/after"
mv "$dir/status.new" "$dir/status"
EOF
tmx new-session -d -x 100 -y 30 "PS1='ready\$ ' bash --norc --noprofile"

# launch ARGS...: runs plenk in the pane; start ARGS... also waits for the full list.
launch() {
  rm -f "$dir/status" "$dir/out" "$dir/err"
  wait_screen 'ready\$ *$'  # keys typed before the shell reads them could reach plenk
  tmx send-keys "clear; ${PLENK_ENV:-} bash $dir/run.sh $*" Enter
}
start() {
  launch "$@"
  wait_screen "Coffee Scale"
}
# finish STATUS: checks the status and that the terminal is back as it was.
finish() {
  for _ in $(seq 1 100); do [ -s "$dir/status" ] && break; sleep 0.05; done
  [ -s "$dir/status" ] || fail "plenk did not exit"
  [ "$(cat "$dir/status")" = "$1" ] || fail "exit status $(cat "$dir/status"), expected $1"
  cmp -s "$dir/before" "$dir/after" || fail "terminal settings not restored"
  grep -q <<<"$(screen)" "Connect An Accessory" && fail "the picker is still on the screen"
  return 0
}

# 1. The list: title, Cancel key, header with a turning spinner, both scales
#    in discovery order, the cursor on the first. Down and Enter pick the second.
start pick --print-id
grep -Eq <<<"$(screen)" '^ Connect An Accessory +Esc/q: Cancel *$' || fail "no title bar"
grep -q <<<"$(screen)" '^ > Plenk Scale' || fail "cursor not on the first scale"
spinner=$(screen | grep '^ Device ')
for _ in $(seq 1 40); do [ "$(screen | grep '^ Device ')" != "$spinner" ] && break; sleep 0.05; done
[ "$(screen | grep '^ Device ')" != "$spinner" ] || fail "the header's spinner does not turn"
tmx send-keys Down
wait_screen '^ > Coffee Scale'
tmx send-keys Enter
finish 0
[ "$(cat "$dir/out")" = "C0FFEE00-5CA1-4E00-8000-000000000002" ] || fail "printed id"

# 2. Esc, q and Ctrl-C: the cancel error (one line) or the interrupt.
while IFS='|' read -r key status pattern; do
  start pick --print-id
  tmx send-keys "$key"
  finish "$status"
  [ ! -s "$dir/out" ] && [ "$(grep -c '' "$dir/err")" -eq 1 ] && grep -q -- "$pattern" "$dir/err" ||
    fail "$key: stderr"
done <<'TABLE'
Escape|8|^plenk: cancelled: RKErrorLECancelC (RKErrorDomain 100)
q|8|^plenk: cancelled: RKErrorLECancelC (RKErrorDomain 100)
C-c|130|^plenk: interrupted$
TABLE

# 3. A failed connection is shown under the list, which stays open with its
#    spinner on the chosen row; selection is over (Down moves nothing), Esc ends it.
start --sim-fault connect-fails pick --print-id
tmx send-keys Enter
wait_screen "connecting to 'Plenk Scale' failed"
tmx send-keys Down
grep -Eq <<<"$(screen)" '^   Plenk Scale .$' || fail "no spinner on the chosen row"
grep -q <<<"$(screen)" '^ > ' && fail "the cursor still moves after the choice"
tmx send-keys Escape
finish 8

# 4. Without --print-id the chosen scale is watched; Ctrl-C ends the watch (0).
start --json pick
tmx send-keys Enter
for _ in $(seq 1 100); do grep -q '"event":"weight"' "$dir/out" && break; sleep 0.05; done
sed -n 1p "$dir/out" | grep -qx \
  '{"event":"picked","name":"Plenk Scale","identifier":"C0FFEE00-5CA1-4E00-8000-000000000001"}' ||
  fail "no picked event first"
tmx send-keys C-c
finish 0
grep -v '"event":"state"' "$dir/out" | tail -n1 | grep -qx '{"event":"disconnected"}' || fail "the watch did not disconnect cleanly"

# 5. No terminal at all: one line, status 2, nothing started.
status=0
setsid -w "$plenk" --sim pick </dev/null >"$dir/out" 2>"$dir/err" || status=$?
[ "$status" -eq 2 ] && [ "$(grep -c '' "$dir/err")" -eq 1 ] && grep -q 'needs a terminal' "$dir/err" ||
  fail "without a terminal: status $status"
# 6. dfu asks on a terminal (on stderr); anything but yes cancels (8) before
#    connecting.
launch --verbose dfu
for _ in $(seq 1 100); do grep -q '\[y/N\]' "$dir/err" 2>/dev/null && break; sleep 0.05; done
tmx send-keys n Enter
finish 8
grep -q received "$dir/err" && fail "dfu connected although it was declined"

# 7. Once on the BlueZ backend, when it is built: the fake bluetoothd's scale is
#    listed, picked and tared on connecting (the write the fake recorded).
if [ -x "$PLENK_BINARY_DIR/tests/fakebluez/fake-bluetoothd" ]; then
  start_fake --writes "$dir/writes"
  PLENK_ENV="PLENK_WORLD='--backend bluez' DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS" launch pick --print-id
  wait_screen '^ > Plenk Scale'
  tmx send-keys Enter
  finish 0
  grep -Eqx '[0-9A-F-]{36}' "$dir/out" || fail "bluez: printed id"
  stop_fake
  grep -q ' EF80 10$' "$dir/writes" || fail "bluez: the fake's scale was not tared"
fi
echo "cli pick: ok"
