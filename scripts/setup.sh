#!/usr/bin/env bash
# Installs every Debian package that building and testing PlenkKit needs.
# Idempotent; runs apt-get as root (through sudo when not root).
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config git
  g++ clang lld libclang-rt-14-dev clang-format clang-tidy
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev
  python3 binutils tmux
  libsdbus-c++-dev libsystemd-dev dbus-daemon python3-bleak python3-dbus
  libgtk-4-dev xvfb xauth adwaita-icon-theme librsvg2-common fonts-dejavu-core desktop-file-utils
  # tests/realstack: a QEMU guest on Debian's kernel running bluetoothd over btvirt's virtual controllers
  qemu-system-x86 busybox-static kmod bluez bluez-test-tools dbus-system-bus-common
)
# --if-needed: do nothing when every package is already installed.
if [ "${1:-}" = "--if-needed" ] &&
   dpkg-query -W -f='${Status}\n' "${packages[@]}" 2>/dev/null | grep -qv 'install ok installed' ; then
  :
elif [ "${1:-}" = "--if-needed" ] && dpkg-query -W "${packages[@]}" >/dev/null 2>&1; then
  exit 0
fi
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q
"${as_root[@]}" apt-get install -y -q --no-install-recommends "${packages[@]}"
