#!/usr/bin/env bash
# Runs CMD... against a private X server: with-xvfb.sh CMD [ARGS...]
#
# Xvfb picks a free display itself (-displayfd), so tests running side by side
# never race for a number. The command gets DISPLAY, a private XDG_RUNTIME_DIR
# and a GTK set up for a machine without GPU, session bus or accessibility bus.
# Exits with the command's status; the server and the runtime folder go with it.
set -uo pipefail
[ $# -gt 0 ] || { echo "usage: $0 CMD [ARGS...]" >&2; exit 2; }

runtime=$(mktemp -d "${TMPDIR:-/tmp}/plenk-xvfb.XXXXXX") || exit 1
chmod 700 "$runtime"
xvfb_pid=
cleanup() {
  if [ -n "$xvfb_pid" ]; then
    kill "$xvfb_pid" 2>/dev/null
    wait "$xvfb_pid" 2>/dev/null
  fi
  rm -rf "$runtime"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Xvfb writes the display number to its stdout (the coprocess pipe) once it
# accepts clients; its chatter goes to a log shown only if it fails to start.
coproc XVFB { exec Xvfb -displayfd 1 -screen 0 1280x800x24 -nolisten tcp 2>"$runtime/xvfb.log"; }
xvfb_pid=$XVFB_PID
if ! read -r -t 30 display <&"${XVFB[0]}" || [ -z "$display" ]; then
  echo "with-xvfb: Xvfb did not start:" >&2
  cat "$runtime/xvfb.log" >&2
  exit 1
fi

export DISPLAY=":$display"
export XDG_RUNTIME_DIR="$runtime"
export GDK_BACKEND=x11
export GSK_RENDERER=cairo
# No GPU: GDK does not even probe GL (EGL would load Mesa's drivers).
export GDK_DEBUG=gl-disable
export GTK_A11Y=none NO_AT_BRIDGE=1
export GSETTINGS_BACKEND=memory
unset WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS

"$@"
