#!/usr/bin/env bash
# plenk scan on the simulated scales: both are listed with their fixed
# identifiers and signal strength, in JSON and as text without a terminal;
# finding none is not an error; bad durations are.
set -euo pipefail
plenk=${PLENK_BINARY_DIR:?}/tools/plenk
out=$(mktemp)
err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
fail() { echo "FAIL: $*"; cat "$out" "$err"; exit 1; }
id1=C0FFEE00-5CA1-4E00-8000-000000000001
id2=C0FFEE00-5CA1-4E00-8000-000000000002

# 1. JSON: one object per scale and report; the scan restarts every 2 s, so a
#    3 s scan reports each scale twice, the second time about 2 s later.
timeout 20 "$plenk" --sim scan --duration 3 --json >"$out" 2>"$err" || fail "json: exit status $?"
for scale in "Plenk Scale|$id1" "Coffee Scale|$id2"; do
  name=${scale%|*} id=${scale#*|}
  pattern="^\{\"event\":\"scale\",\"name\":\"$name\",\"identifier\":\"$id\",\"rssi\":-58,\"lastSeen\":[0-9]+(\.[0-9]+)?\}$"
  [ "$(grep -Ec "$pattern" "$out")" -eq 2 ] || fail "json: '$name' not reported twice in shape"
  last=$(grep "$id" "$out" | tail -n1 | sed 's/.*"lastSeen":\([0-9.]*\)}/\1/')
  awk -v s="$last" 'BEGIN { exit !(s >= 1.5 && s < 3) }' || fail "json: '$name' last seen at $last s"
done
[ "$(grep -c '' "$out")" -eq 4 ] || fail "json: stray lines"

# 2. Text without a terminal: a line per scale found, then the table.
timeout 20 "$plenk" --sim scan --duration 1 >"$out" 2>"$err" || fail "text: exit status $?"
grep -qx "found Plenk Scale, $id1, -58 dBm" "$out" || fail "text: no line for Plenk Scale"
grep -qx "found Coffee Scale, $id2, -58 dBm" "$out" || fail "text: no line for Coffee Scale"
grep -Eq '^NAME +IDENTIFIER +RSSI +LAST SEEN$' "$out" || fail "text: no table header"
grep -Eqx "Coffee Scale +$id2 +-58 dBm +now" "$out" || fail "text: no table row"
grep -q $'\e' "$out" && fail "text: terminal escapes without a terminal"

# 3. Nothing in range: said so, and still a success.
timeout 20 "$plenk" --sim --sim-fault no-scale scan --duration 1 >"$out" 2>"$err" || fail "no scale: exit status $?"
grep -qx 'no scales found' "$out" || fail "no scale: no 'no scales found' line"

# 4. Bad arguments: one line on stderr, status 2, nothing printed.
while IFS='|' read -r pattern args; do
  set +e
  # shellcheck disable=SC2086
  timeout 10 "$plenk" --sim scan $args >"$out" 2>"$err"
  status=$?
  set -e
  [ "$status" -eq 2 ] && [ ! -s "$out" ] && [ "$(grep -c '' "$err")" -eq 1 ] && grep -q -- "$pattern" "$err" ||
    fail "scan $args: status $status, stderr: $(cat "$err")"
done <<'TABLE'
'0' is not a number of seconds|--duration 0
'-1' is not a number of seconds|--duration=-1
'soon' is not a number of seconds|--duration soon
--duration|--duration
TABLE
echo "cli scan: ok"
