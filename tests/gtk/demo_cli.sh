#!/usr/bin/env bash
# plenk-demo's command line and desktop entry, without a display: the help,
# a clear error and status 2 for a backend or option mix it cannot use, and a
# desktop file that validates (when desktop-file-validate is installed).
#   demo_cli.sh PLENK_DEMO DESKTOP_FILE
set -uo pipefail
demo=$1 desktop=$2
failed=0
fail() { echo "FAIL: $*" >&2; failed=1; }

out=$(env -u DISPLAY -u WAYLAND_DISPLAY "$demo" --help 2>&1); rc=$?
[ "$rc" -eq 0 ] && grep -q -- '--sim' <<<"$out" && grep -q -- '--backend=NAME' <<<"$out" &&
  grep -q -- '--adapter=hciN' <<<"$out" || fail "--help -> rc=$rc [$out]"

for args in "--backend nope|unknown Bluetooth backend \"nope\"" \
            "--sim --backend bluez|cannot be combined with --backend bluez"; do
  out=$(env -u DISPLAY -u WAYLAND_DISPLAY "$demo" ${args%|*} 2>&1); rc=$?
  [ "$rc" -eq 2 ] && [[ $out == "plenk-demo: "* ]] && grep -qF "${args#*|}" <<<"$out" || fail "${args%|*} -> rc=$rc [$out]"
done

if command -v desktop-file-validate >/dev/null; then
  out=$(desktop-file-validate "$desktop" 2>&1) || fail "desktop-file-validate: $out"
fi
exit $failed
