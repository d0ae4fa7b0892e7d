# Sourced by the plenk tool's test scripts: the tool, a way to run it, a
# failure count for table-driven checks, and the fake bluetoothd on a private
# bus that stands in for the system bus.
plenk=${PLENK_BINARY_DIR:?}/tools/plenk
[ -x "$plenk" ] || { echo "missing $plenk"; exit 1; }
unset PLENK_BACKEND PLENK_ADAPTER

failures=0
out="" err="" rc=0
# run ARGS...: plenk without input (no terminal either); sets out, err and rc.
run() {
  local errfile
  errfile=$(mktemp)
  out=$(timeout 30 "$plenk" "$@" 2>"$errfile" </dev/null)
  rc=$?
  err=$(cat "$errfile")
  rm -f "$errfile"
}
# fail WHAT: counts a failed check and goes on.
fail() {
  echo "FAIL: plenk $*"
  failures=$((failures + 1))
}
# checks_done NAME: the script's verdict.
checks_done() {
  [ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
  echo "$1: ok"
}

fake_pid=
# start_fake OPTIONS...: the fake bluetoothd, whose bus becomes the system bus.
start_fake() {
  coproc FAKE { exec "$PLENK_BINARY_DIR/tests/fakebluez/fake-bluetoothd" --private "$@" 2>/dev/null; }
  fake_pid=$FAKE_PID
  read -r DBUS_SYSTEM_BUS_ADDRESS <&"${FAKE[0]}" || { echo "the fake bluetoothd did not start"; exit 1; }
  export DBUS_SYSTEM_BUS_ADDRESS
}
# stop_fake: ends it (it writes its --writes log as it goes).
stop_fake() {
  if [ -n "$fake_pid" ]; then kill "$fake_pid" 2>/dev/null || true; wait "$fake_pid" 2>/dev/null || true; fi
  fake_pid=
}
