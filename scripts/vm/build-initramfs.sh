#!/usr/bin/env bash
# Builds the test guest from Debian's packages: the cloud kernel of
# linux-image-cloud-amd64, and an initramfs made of busybox-static, the
# kernel's virtio network modules, ethtool (with the libraries it links) and
# scripts/vm/guest-init. Idempotent; the result lands in <out-dir>:
#   vmlinuz          the guest kernel (a link to /boot)
#   initramfs.cpio.gz
#   kernel-release   the kernel version the modules come from
# Usage: scripts/vm/build-initramfs.sh <out-dir>
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=${1:?usage: build-initramfs.sh <out-dir>}
mkdir -p "$out"

kernel=$(ls -1 /boot/vmlinuz-*-cloud-amd64 2>/dev/null | sort -V | tail -n1)
[ -n "$kernel" ] || { echo "vm: no cloud kernel in /boot (package linux-image-cloud-amd64)" >&2; exit 1; }
release=${kernel#/boot/vmlinuz-}
mods=/lib/modules/$release
stamp="$release $(sha256sum "$here/guest-init" "$0" | sha256sum | cut -c1-16)"
if [ -f "$out/initramfs.cpio.gz" ] && [ "$(cat "$out/stamp" 2>/dev/null)" = "$stamp" ]; then
  exit 0
fi

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,lib/modules,etc}
cp /bin/busybox "$root/bin/busybox"
for applet in $("$root/bin/busybox" --list); do
  [ -e "$root/bin/$applet" ] || ln -s busybox "$root/bin/$applet"
done

# The network driver and what it needs, in load order.
order=(virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci failover net_failover virtio_net)
: > "$root/lib/modules/order"
for m in "${order[@]}"; do
  f=$(find "$mods/kernel" -name "$m.ko*" -print -quit)
  [ -n "$f" ] || { echo "vm: module $m not found under $mods" >&2; exit 1; }
  case "$f" in
    *.ko.xz) xz -dc "$f" > "$root/lib/modules/$m.ko" ;;
    *.ko.zst) zstd -dcq "$f" > "$root/lib/modules/$m.ko" ;;
    *) cp "$f" "$root/lib/modules/$m.ko" ;;
  esac
  echo "$m" >> "$root/lib/modules/order"
done

# ethtool sets the number of queue pairs; copy it with its libraries.
copy_bin() {
  local bin=$1
  cp "$bin" "$root/usr/sbin/"
  for lib in $(ldd "$bin" | awk '/=>/ {print $3} /^\s*\/lib/ {print $1}'); do
    mkdir -p "$root$(dirname "$lib")"
    cp -L "$lib" "$root$lib"
  done
}
copy_bin "$(command -v ethtool)"
# The dynamic loader itself, where the libraries expect it.
mkdir -p "$root/lib64"
cp -L /lib64/ld-linux-x86-64.so.2 "$root/lib64/"

install -m 0755 "$here/guest-init" "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) > "$out/initramfs.cpio.gz.new"
mv "$out/initramfs.cpio.gz.new" "$out/initramfs.cpio.gz"
ln -sf "$kernel" "$out/vmlinuz"
echo "$release" > "$out/kernel-release"
echo "$stamp" > "$out/stamp"
echo "vm: guest kernel $release, initramfs $(du -h "$out/initramfs.cpio.gz" | cut -f1) in $out"
