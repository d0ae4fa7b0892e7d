#!/bin/bash
# PID 1 of the real-stack guest, on the host's root (read-only over 9p) after the initramfs switched to
# it. Brings up the real Linux Bluetooth stack (kernel HCI, two virtual LE controllers joined by
# btvirt, the system bus, bluetoothd), runs the scenario, and reports through the results share:
# RESULTS/verdict holds the scenario's exit status, or "setup-failed: STEP: why" when the stack did not
# come up. Whatever happens, it ends by powering the guest off (PID 1 must never exit).
# Kernel command line: plenk.results= plenk.kernel= plenk.repo= plenk.scenario= plenk.build=
# plenk.timeout= (seconds the scenario may take).
set -uo pipefail # no -e: every failure becomes a verdict
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/var/tmp TMPDIR=/var/tmp LANG=C.UTF-8
unset PLENK_ADAPTER

declare -A param=()
for arg in $(</proc/cmdline); do
  case $arg in plenk.*=*)
    key=${arg%%=*}
    param[${key#plenk.}]=${arg#*=}
    ;;
  esac
done
results=${param[results]}
kernel=${param[kernel]:-}
timeout=${param[timeout]:-240}

log() {
  local line
  line="realstack guest [$(cut -d' ' -f1 /proc/uptime)s] $*"
  echo "$line" >/dev/console
  echo "$line" >>"$results/guest.log"
}
# Uptime at each milestone, for the host's summary.
mark() { echo "$1 $(cut -d' ' -f1 /proc/uptime)" >>"$results/timings"; }

daemons=()
finish() {
  log "verdict: $1"
  echo "$1" >"$results/verdict"
  dmesg >"$results/dmesg.log" 2>&1
  # btmon flushes its capture on SIGINT; the others just stop.
  local pid
  for pid in "${daemons[@]}"; do kill -INT "$pid" 2>/dev/null; done
  for _ in $(seq 20); do
    pid=$(for p in "${daemons[@]}"; do kill -0 "$p" 2>/dev/null && echo "$p"; done)
    [ -z "$pid" ] && break
    sleep 0.1
  done
  mark poweroff
  sync
  busybox poweroff -f
  echo o >/proc/sysrq-trigger
  sleep infinity
}
setup_failed() { finish "setup-failed: $step: $*"; }
# "NAME exited: LAST LOG LINE; " when the daemon PID is gone, to head a failure message.
gone() {
  kill -0 "$1" 2>/dev/null || echo "$2 exited: $(tail -n1 "$results/$2.log"); "
}
begin() {
  step=$1
  log "$step"
}

# Bounds are generous: under a loaded host each step takes several times longer.
# Polls CONDITION (a command without arguments) every 0.1 s for at most SECONDS; true when it held.
# With a PID, gives up as soon as that daemon is gone.
wait_for() {
  local deadline=$((SECONDS + $1)) condition=$2 pid=${3:-}
  until "$condition"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    [ -z "$pid" ] || kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.1
  done
}

# A shell error (an unset variable, say) would end PID 1 and panic the kernel without a verdict.
trap 'finish "setup-failed: ${step:-start}: guest init stopped unexpectedly"' EXIT
mark userspace
log "guest init started (kernel $(uname -r))"
for key in kernel repo scenario build; do
  [ -n "${param[$key]:-}" ] || {
    begin cmdline
    setup_failed "plenk.$key= is missing"
  }
done

begin mounts
mount -t sysfs sysfs /sys || setup_failed "sysfs"
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts || setup_failed "devpts"
mount -t tmpfs tmpfs /dev/shm || setup_failed "/dev/shm"

# The host has no /lib/modules for this kernel: the kernel's own module requests go through a
# wrapper naming the unpacked one, and are logged to RESULTS/modprobe.log.
begin modprobe
mkdir -p /run/realstack
cat >/run/realstack/modprobe <<EOF
#!/bin/sh
echo "\$(cut -d' ' -f1 /proc/uptime) \$*" >>'$results/modprobe.log'
exec /sbin/modprobe -d '$kernel' "\$@"
EOF
chmod 755 /run/realstack/modprobe
echo /run/realstack/modprobe >/proc/sys/kernel/modprobe || setup_failed "cannot set the modprobe helper"
# Loaded up front, not on demand: a request blocks the process that caused it, and a loading burst
# under TCG takes seconds. btvirt's crypto (af_alg to cmac) loaded while its first controller
# initialises made the kernel's HCI Reset to it time out. bnep is bluetoothd's.
/run/realstack/modprobe -a bluetooth hci_vhci af_alg algif_hash algif_skcipher ecb cmac bnep ||
  setup_failed "modprobe of the Bluetooth and crypto modules failed"

begin dbus
mkdir -p /run/dbus
dbus-daemon --system --fork || setup_failed "dbus-daemon --system did not start"
bus_socket() { [ -S /run/dbus/system_bus_socket ]; }
wait_for 10 bus_socket || setup_failed "no system bus socket after 10 s"

# btmon records everything HCI and mgmt to RESULTS/hci.btsnoop (the host decodes it to btmon.log:
# decoding here would take CPU from the scenario). Once the kernel's monitor channel has greeted it
# (notes after the 16-byte file header) it will also see the controllers being created.
begin btmon
btmon -w "$results/hci.btsnoop" >/dev/null 2>&1 &
daemons+=($!)
monitoring() { [ "$(stat -c %s "$results/hci.btsnoop" 2>/dev/null || echo 0)" -gt 16 ]; }
wait_for 20 monitoring || setup_failed "btmon did not start within 20 s"

begin btvirt
btvirt -L -l2 >"$results/btvirt.log" 2>&1 &
btvirt=$!
daemons+=("$btvirt")
both_controllers() { [ -e /sys/class/bluetooth/hci0 ] && [ -e /sys/class/bluetooth/hci1 ]; }
wait_for 20 both_controllers "$btvirt" || setup_failed "$(gone "$btvirt" btvirt)no hci0 and hci1 after 20 s"

begin bluetoothd
bluetoothd -n -d --noplugin=sap,hostname >"$results/bluetoothd.log" 2>&1 &
bluetoothd=$!
daemons+=("$bluetoothd")
bluez() { dbus-send --system --print-reply --dest=org.bluez "$@" 2>/dev/null; }
both_adapters() {
  [ "$(bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects |
    grep -cE 'object path "/org/bluez/hci[01]"$')" -eq 2 ]
}
wait_for 30 both_adapters "$bluetoothd" ||
  setup_failed "$(gone "$bluetoothd" bluetoothd)org.bluez did not export /org/bluez/hci0 and hci1 within 30 s"

begin power
powered() {
  bluez "/org/bluez/$hci" org.freedesktop.DBus.Properties.Get string:org.bluez.Adapter1 string:Powered |
    grep -q 'boolean true'
}
for hci in hci0 hci1; do
  bluez "/org/bluez/$hci" org.freedesktop.DBus.Properties.Set string:org.bluez.Adapter1 string:Powered \
    variant:boolean:true >/dev/null || setup_failed "setting $hci Powered failed"
  wait_for 10 powered || setup_failed "$hci not powered after 10 s"
done
mark stack-ready
log "stack ready: hci0 and hci1 powered; running ${param[scenario]} (at most ${timeout} s)"

begin scenario
mark scenario-start
(cd "${param[repo]}" && PLENK_BUILD_DIR=${param[build]} REALSTACK_RESULTS=$results \
  timeout -k 5 "$timeout" bash "${param[scenario]}") </dev/null >"$results/scenario.log" 2>&1
status=$?
mark scenario-end
if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
  finish "scenario-timeout: stopped after $timeout s (status $status)"
fi
finish "$status"
