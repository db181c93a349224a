#!/usr/bin/env bash
# Idempotent machine set-up for building and testing net_zorv1 on Debian 12.
#  - installs the toolchain, DPDK 22.11 and the test peers from Debian's packages;
#  - builds the test guest (a Linux VM peer) into build/vm from those packages;
#  - fetches DPDK's driver-SDK headers (not shipped by libdpdk-dev) from Debian's
#    source package of exactly the installed DPDK version into build/sdk/include.
# Usage: scripts/setup.sh [build-dir]   (default: ./build)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
export DEBIAN_FRONTEND=noninteractive

pkgs=(
  build-essential cmake ninja-build pkg-config
  dpdk dpdk-dev libdpdk-dev
  googletest libgtest-dev libgmock-dev
  clang libclang-rt-14-dev
  libmosquitto-dev mosquitto mosquitto-clients openssl
  libjansson-dev
  iproute2 iputils-ping netcat-openbsd python3 gnuplot-nox
  dpkg-dev xz-utils
  qemu-system-x86 linux-image-cloud-amd64 busybox-static ethtool cpio
  gdb tshark tcpdump util-linux dpdk-doc linux-perf valgrind
)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  [ "$(id -u)" = 0 ] || { echo "setup: need root to install: ${missing[*]}" >&2; exit 1; }
  echo "setup: installing ${missing[*]}"
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Driver-SDK headers from the source package of the installed version.
sdk=$build/sdk/include
need=(ethdev_driver.h ethdev_vdev.h bus_vdev_driver.h dev_driver.h bus_driver.h)
have=1
for h in "${need[@]}"; do [ -f "$sdk/$h" ] || have=0; done
if [ $have = 0 ]; then
  ver=$(dpkg-query -W -f='${Version}' libdpdk-dev)
  src=/etc/apt/sources.list.d/zorv-deb-src.sources
  if ! apt-get source --print-uris "dpdk=$ver" >/dev/null 2>&1; then
    # Add a deb-src twin of every deb entry of Debian's own sources.
    base=/etc/apt/sources.list.d/debian.sources
    if [ -f "$base" ]; then
      sed -e 's/^Types: deb$/Types: deb-src/' "$base" > "$src"
    else
      grep -h '^deb http' /etc/apt/sources.list | sed 's/^deb /deb-src /' > /etc/apt/sources.list.d/zorv-deb-src.list
    fi
    apt-get update -qq
  fi
  work=$build/sdk/src
  mkdir -p "$work" "$sdk"
  (cd "$work" && apt-get source --download-only -qq "dpdk=$ver" >/dev/null)
  tarball=$(ls "$work"/dpdk_*.orig.tar.* | head -n1)
  # Pull only the headers we need out of the upstream tarball.
  tar -C "$work" -xf "$tarball" --wildcards \
    '*/lib/ethdev/ethdev_driver.h' '*/lib/ethdev/ethdev_vdev.h' \
    '*/drivers/bus/vdev/bus_vdev_driver.h' '*/lib/eal/include/dev_driver.h' \
    '*/lib/eal/include/bus_driver.h'
  for h in "${need[@]}"; do
    f=$(find "$work" -name "$h" -print -quit)
    [ -n "$f" ] || { echo "setup: $h not found in $tarball" >&2; exit 1; }
    cp "$f" "$sdk/$h"
  done
  echo "$ver" > "$sdk/VERSION"
  echo "setup: SDK headers of dpdk $ver in $sdk"
fi

# The test guest: Debian's cloud kernel and an initramfs of busybox and the
# virtio network modules (seconds; rebuilt only when its inputs change).
"$here/scripts/vm/build-initramfs.sh" "$build/vm" >/dev/null
