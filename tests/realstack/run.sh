#!/usr/bin/env bash
# Runs a scenario against the real Linux Bluetooth stack: boots a QEMU guest (TCG) on Debian's kernel
# with the host's / shared read-only, where guest-init.sh brings up two virtual LE controllers and
# bluetoothd, runs the scenario and writes its exit status to RESULTS/verdict. Exits with that status.
#   run.sh --build-dir DIR [--scenario PATH] [--results DIR] [--timeout SECONDS]
# The scenario defaults to e2e.sh, RESULTS to DIR/realstack/results (emptied first), the timeout
# (the whole run, boot included; QEMU is killed after it) to 300 s.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)
die() {
  echo "realstack: $*" >&2
  exit 2
}
usage() { die "usage: $0 --build-dir DIR [--scenario PATH] [--results DIR] [--timeout SECONDS]"; }

build='' scenario=$here/e2e.sh results='' timeout=300
while [ $# -gt 0 ]; do
  [ $# -ge 2 ] || usage
  case $1 in
    --build-dir) build=$2 ;;
    --scenario) scenario=$2 ;;
    --results) results=$2 ;;
    --timeout) timeout=$2 ;;
    *) usage ;;
  esac
  shift 2
done
[ -n "$build" ] || usage
if ! [[ $timeout =~ ^[0-9]+$ ]] || [ "$timeout" -lt 90 ]; then
  die "--timeout must be a whole number of seconds, at least 90"
fi
[ -f "$scenario" ] || die "no scenario at $scenario"
mkdir -p "$build"
build=$(cd "$build" && pwd)
scenario=$(cd "$(dirname "$scenario")" && pwd)/$(basename "$scenario")
results=${results:-$build/realstack/results}

# The guest sees the host's / at the same paths, except where it mounts fresh tmpfs folders; paths
# travel on the kernel command line, which splits at spaces.
for path in "$build" "$scenario" "$repo"; do
  case $path in
    *[[:space:]]*) die "paths with spaces cannot be passed to the guest: $path" ;;
    /run/* | /var/tmp/* | /var/lib/bluetooth/* | /proc/* | /sys/* | /dev/*)
      die "$path is hidden in the guest (a fresh tmpfs or kernel file system there); use another folder" ;;
  esac
done
case $results in *[[:space:]]*) die "paths with spaces cannot be passed to the guest: $results" ;; esac

for tool in qemu-system-x86_64 timeout btvirt btmon dbus-daemon dbus-send; do
  command -v "$tool" >/dev/null || die "'$tool' is missing; run scripts/setup.sh"
done
[ -x /usr/sbin/bluetoothd ] || die "bluetoothd is missing; run scripts/setup.sh"

# Emptied for a fresh run, but only a folder that is empty or that an earlier run made.
if [ -e "$results" ] && [ ! -d "$results" ]; then
  die "$results exists and is not a folder"
elif [ -d "$results" ] && [ -n "$(ls -A "$results")" ] && [ ! -f "$results/.realstack-results" ]; then
  die "$results is not empty and was not made by this harness; refusing to empty it"
fi
rm -rf "$results"
mkdir -p "$results"
results=$(cd "$results" && pwd)
touch "$results/.realstack-results"

started=$(date +%s.%N)
bash "$here/prepare.sh" "$build"
prepared=$(date +%s.%N)
out=$build/realstack
kernel=$out/kernel
version=$(cat "$kernel/.unpacked")

# The scenario gets what is left once boot and power-off are paid for (half a minute under TCG on a
# busy host).
scenario_timeout=$((timeout - 60))
# Without cryptomgr.notests the kernel self-tests every crypto algorithm that Bluetooth loads: about
# 10 s under TCG. panic=-1 with -no-reboot turns a guest panic into QEMU exiting.
cmdline=(console=ttyS0 panic=-1 quiet cryptomgr.notests
  plenk.init="$here/guest-init.sh" plenk.results="$results" plenk.kernel="$kernel"
  plenk.repo="$repo" plenk.scenario="$scenario" plenk.build="$build" plenk.timeout="$scenario_timeout")
echo "realstack: booting the guest (logs in $results)"
status=0
timeout -k 10 "$timeout" qemu-system-x86_64 -accel tcg -m 1024 -smp 2 -nographic -no-reboot -nic none \
  -kernel "$kernel/boot/vmlinuz-$version" -initrd "$out/initramfs.cpio.gz" -append "${cmdline[*]}" \
  -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap \
  -virtfs "local,path=$results,mount_tag=results,security_model=none,multidevs=remap" \
  </dev/null >"$results/console.log" 2>"$results/qemu.log" || status=$?
finished=$(date +%s.%N)
if [ -s "$results/hci.btsnoop" ]; then
  btmon -t -r "$results/hci.btsnoop" >"$results/btmon.log" 2>&1 || true
fi

verdict=$(head -n1 "$results/verdict" 2>/dev/null || true)
if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
  verdict="host-timeout: QEMU killed after $timeout s${verdict:+ (guest verdict: $verdict)}"
elif [ "$status" -ne 0 ]; then
  verdict="qemu-failed: exit status $status${verdict:+ (guest verdict: $verdict)}"
elif [ -z "$verdict" ]; then
  verdict="no-verdict: the guest wrote none (see console.log)"
fi

milestone() { awk -v m="$1" '$1 == m { print $2 }' "$results/timings" 2>/dev/null || true; }
awk -v s="$started" -v p="$prepared" -v f="$finished" \
  'BEGIN { printf "realstack: prepare %.1f s, whole run %.1f s", p - s, f - s }'
for m in userspace stack-ready scenario-start scenario-end poweroff; do
  t=$(milestone "$m")
  [ -z "$t" ] || printf ', %s at %s s' "$m" "$t"
done
printf ' (guest uptime)\n'
echo "realstack: logs in $results"
if [ "$verdict" = 0 ]; then
  echo "realstack: PASS"
  exit 0
fi
for file in "$results"/*.log; do
  # guest.log repeats what console.log shows
  case $file in */guest.log) continue ;; esac
  [ -s "$file" ] || continue
  echo "----- tail of $file"
  tail -n 25 "$file"
done
echo "realstack: FAIL: $verdict"
[[ $verdict =~ ^[0-9]+$ ]] && exit "$verdict"
exit 1
