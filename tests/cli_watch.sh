#!/usr/bin/env bash
# plenk watch on the simulated scale: connects, streams weights, ends by
# itself after --duration and on Ctrl-C, disconnecting cleanly both times.
set -euo pipefail
plenk=${PLENK_BINARY_DIR:?}/tools/plenk
out=$(mktemp)
trap 'rm -f "$out"' EXIT

fail() { echo "FAIL: $*"; cat "$out"; exit 1; }

# 1. --duration, JSON events.
timeout 30 "$plenk" watch --sim --duration 4 --json >"$out"
events() { grep -v '"event":"state"' "$out"; }
events | sed -n 1p | grep -qx '{"event":"connected"}' || fail "first event is not connected"
events | tail -n1 | grep -qx '{"event":"disconnected"}' || fail "last event is not disconnected"
[ "$(grep '"event":"state"' "$out" | tail -n2 | tr -d '\n')" = \
  '{"event":"state","value":"connected"}{"event":"state","value":"disconnected"}' ] ||
  fail "link states do not end connected, disconnected"
weights=$(grep -c '"event":"weight"' "$out")
[ "$weights" -ge 20 ] || fail "only $weights weights in 4 s at 10 Hz"
grep -q '{"event":"battery","value":85}' "$out" || fail "no battery reading"
grep -Eq '^\{"event":"weight","value":-?[0-9.e-]+\}$' "$out" || fail "malformed weight line"

# 2. Ctrl-C ends it cleanly too.
"$plenk" watch --sim --json >"$out" &
pid=$!
for _ in $(seq 1 100); do grep -q '"event":"weight"' "$out" && break; sleep 0.1; done
kill -INT "$pid"
wait "$pid" || fail "exit status $? after Ctrl-C"
events | tail -n1 | grep -qx '{"event":"disconnected"}' || fail "no clean disconnect on Ctrl-C"

# 3. Text mode shows grams with one decimal, state and battery.
timeout 30 "$plenk" watch --sim --duration 2 >"$out"
grep -Eq '^ *-?[0-9]+\.[0-9] g  connected +battery 85%$' "$out" || fail "no status line"

# 4. --verbose: the library's diagnostics go to stderr, one line each; stdout keeps
#    clean status lines. An explicit --sim wins over PLENK_BACKEND.
err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
PLENK_BACKEND=nosuch timeout 30 "$plenk" watch --sim --duration 1 --verbose >"$out" 2>"$err" ||
  fail "verbose watch exited with $?"
grep -Evq '^ *(-?[0-9]+\.[0-9]|--\.-) g  [A-Za-z ]+ +battery [0-9-]+%?$' "$out" && fail "stray text on stdout"
grep -q '^plenk: library: .*disconnection' "$err" || fail "no library diagnostic on stderr: $(cat "$err")"

# 5. Bad arguments: one line on stderr, status 2, nothing started.
while IFS='|' read -r pattern args; do
  set +e
  # shellcheck disable=SC2086
  timeout 10 "$plenk" watch $args >"$out" 2>"$err"
  status=$?
  set -e
  [ "$status" -eq 2 ] && [ ! -s "$out" ] && [ "$(grep -c '' "$err")" -eq 1 ] && grep -q -- "$pattern" "$err" ||
    fail "watch $args: status $status, stderr: $(cat "$err")"
done <<'TABLE'
unknown Bluetooth backend|--backend nosuch --duration 1
cannot be combined with --backend 'nope'|--sim --backend nope
'abc' is not a number of seconds|--sim --duration abc
'0' is not a number of seconds|--sim --duration 0
'1e400' is not a number of seconds|--sim --duration 1e400
TABLE
echo "cli watch: ok"
