#!/bin/busybox sh
# shellcheck shell=dash
# /init of the real-stack guest's initramfs (busybox only). Loads the virtio 9p modules, mounts the
# results share and the host's / (read-only) over 9p, gives the new root writable tmpfs folders, then
# switches to it and runs the guest init script there as PID 1. Parameters come from the kernel
# command line: plenk.init=SCRIPT plenk.results=DIR (absolute host paths, seen unchanged in the guest).
/bin/busybox mkdir -p /proc /sys /dev /newroot /results
/bin/busybox mount -t proc proc /proc
/bin/busybox --install -s /bin
export PATH=/bin
mount -t devtmpfs devtmpfs /dev
exec </dev/console >/dev/console 2>&1

# Without the results share mounted nothing can be reported to the host; it then sees no verdict.
fail() {
  echo "realstack initramfs: $*"
  if [ -n "$results_mounted" ]; then
    echo "setup-failed: initramfs: $*" >/results/verdict
    umount /results
  fi
  poweroff -f
}

init='' results='' results_mounted=''
read -r cmdline </proc/cmdline
for arg in $cmdline; do
  case $arg in
    plenk.init=*) init=${arg#plenk.init=} ;;
    plenk.results=*) results=${arg#plenk.results=} ;;
  esac
done

while read -r ko; do
  insmod "/modules/$ko" || fail "insmod $ko"
done </modules/order
p9='trans=virtio,version=9p2000.L,msize=512000'
mount -t 9p -o "$p9" results /results || fail "mount of the results share"
results_mounted=1
if [ -z "$init" ] || [ -z "$results" ]; then
  fail "plenk.init= and plenk.results= are required"
fi
mount -t 9p -o "$p9,ro,cache=loose" hostroot /newroot || fail "mount of the host's root"

# /tmp stays the host's (read-only): a checkout or build folder there must stay visible.
for dir in run var/tmp var/lib/bluetooth; do
  [ -d "/newroot/$dir" ] || fail "the host has no /$dir to mount a tmpfs on"
  mount -t tmpfs -o mode=0755 tmpfs "/newroot/$dir" || fail "tmpfs on /$dir"
done
chmod 1777 /newroot/var/tmp
[ -f "/newroot$init" ] || fail "no guest init script at $init"
# run.sh made the results folder on the host, so it is there as a mount point.
mount --move /results "/newroot$results" || fail "results share onto $results"
for fs in dev proc; do
  mount --move "/$fs" "/newroot/$fs" || fail "moving /$fs"
done
exec switch_root /newroot /bin/bash "$init"
