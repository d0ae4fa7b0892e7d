#!/usr/bin/env bash
# Prepares what the real-stack guest boots from, cached under BUILD_DIR/realstack/:
#   kernel/                Debian's stock kernel package unpacked (never installed on the host), with
#                          modules.dep made by depmod, so the guest can load any module it needs
#   initramfs.cpio.gz      busybox, the modules 9p needs and initramfs-init.sh as /init
#   prepared.stamp         what the cache was made from; when it matches, a run costs nothing
# Usage: prepare.sh BUILD_DIR        (REALSTACK_REFRESH=1 rebuilds everything)
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
die() {
  echo "realstack prepare: $*" >&2
  exit 1
}
[ $# -eq 1 ] || die "usage: $0 BUILD_DIR"
mkdir -p "$1/realstack"
out=$(cd "$1/realstack" && pwd)
kdir=$out/kernel

for tool in apt-get apt-cache dpkg busybox gzip sha256sum flock; do
  command -v "$tool" >/dev/null || die "'$tool' is missing; run scripts/setup.sh"
done
# depmod and modprobe live in /sbin, which an ordinary user's PATH may lack.
export PATH=$PATH:/usr/sbin:/sbin
for tool in depmod modprobe; do
  command -v "$tool" >/dev/null || die "'$tool' is missing (package kmod); run scripts/setup.sh"
done

# Two runs sharing a build folder prepare one after the other.
exec 9>"$out/.lock"
flock 9
inputs_hash=$(cat "$here/initramfs-init.sh" "$here/prepare.sh" | sha256sum | cut -d' ' -f1)
if [ "${REALSTACK_REFRESH:-0}" = 1 ]; then
  rm -rf "$kdir" "$out/prepared.stamp"
fi
if [ -f "$out/prepared.stamp" ] && [ -f "$out/initramfs.cpio.gz" ] && [ -f "$kdir/.unpacked" ] &&
  grep -qx "inputs=$inputs_hash" "$out/prepared.stamp"; then
  exit 0
fi

# The kernel: whichever versioned image the linux-image-amd64 metapackage currently depends on. Kept
# once unpacked: a newer kernel in the archive does not invalidate a working cache.
if [ ! -f "$kdir/.unpacked" ]; then
  package=$(apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/^ *Depends: \(linux-image-[0-9][^ ]*-amd64\)$/\1/p' | head -n1)
  [ -n "$package" ] || die "apt knows no linux-image-amd64 kernel; run 'apt-get update' (scripts/setup.sh does)"
  version=${package#linux-image-}
  echo "realstack prepare: downloading $package"
  rm -rf "$out/download" "$kdir"
  mkdir -p "$out/download"
  apt_opts=()
  # As root, apt's download sandbox user cannot write into an arbitrary folder; it only warns, but loudly.
  [ "$(id -u)" -ne 0 ] || apt_opts=(-o APT::Sandbox::User=root)
  (cd "$out/download" && apt-get "${apt_opts[@]}" download -q "$package") ||
    die "apt-get download $package failed"
  dpkg -x "$out/download/${package}"_*.deb "$kdir.tmp" || die "dpkg -x of $package failed"
  rm -rf "$out/download"
  [ -f "$kdir.tmp/boot/vmlinuz-$version" ] || die "$package has no boot/vmlinuz-$version"
  [ -d "$kdir.tmp/lib/modules/$version" ] || die "$package has no lib/modules/$version"
  # The package ships no modules.dep; modprobe needs it, in the guest and below.
  depmod -b "$kdir.tmp" "$version" || die "depmod -b failed"
  echo "$version" >"$kdir.tmp/.unpacked"
  mv "$kdir.tmp" "$kdir"
fi
version=$(cat "$kdir/.unpacked")

# The initramfs: only what mounting the host's root over virtio 9p needs, in load order.
stage=$out/initramfs.d
rm -rf "$stage"
mkdir -p "$stage/bin" "$stage/modules"
cp "$(command -v busybox)" "$stage/bin/busybox"
busybox --list | grep -x cpio >/dev/null || die "this busybox has no cpio applet (install busybox-static)"
# A dynamically linked busybox would find no C library in the initramfs (the loader lists its
# libraries on this variable, as ldd does; a static binary ignores it).
if LD_TRACE_LOADED_OBJECTS=1 "$stage/bin/busybox" </dev/null 2>&1 | grep 'libc\.so' >/dev/null; then
  die "busybox is dynamically linked; install busybox-static"
fi
cp "$here/initramfs-init.sh" "$stage/init"
chmod 755 "$stage/init" "$stage/bin/busybox"
modprobe -d "$kdir" -S "$version" --show-depends -a virtio_pci 9pnet_virtio 9p >"$out/initramfs.deps" ||
  die "modprobe could not resolve the 9p modules in $kdir"
awk '$1 == "insmod" && !seen[$2]++ { print $2 }' "$out/initramfs.deps" | while read -r ko; do
  cp "$ko" "$stage/modules/"
  basename "$ko" >>"$stage/modules/order"
done
[ -s "$stage/modules/order" ] || die "no modules resolved for 9p"
(cd "$stage" && find . | busybox cpio -o -H newc 2>/dev/null) | gzip -1 >"$out/initramfs.cpio.gz.tmp"
mv "$out/initramfs.cpio.gz.tmp" "$out/initramfs.cpio.gz"
rm -rf "$stage" "$out/initramfs.deps"

printf 'kernel=%s\ninputs=%s\n' "$version" "$inputs_hash" >"$out/prepared.stamp"
echo "realstack prepare: kernel $version and initramfs ready in $out"
