#!/usr/bin/env python3
"""The demo with a virtual machine as the port's peer (make demo VM=1).

dpdk-testpmd holds a net_zorv1 port on a vhost-user socket and a TAP port
whose kernel end sits in a network namespace; io forwarding joins them. A
Linux guest (QEMU under TCG, Debian's cloud kernel, a busybox initramfs)
boots with its virtio-net NIC on the port's socket. The namespace and the
guest ping each other through the port, then the port's statistics and its
record in the driver's telemetry are shown.
"""
import argparse
import os
import re
import sys
import time

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(here, "..", "..", "tests", "e2e"))
import zorv_e2e as e2e  # noqa: E402
import zorv_vm as vm  # noqa: E402
from zorv_netns import in_ns  # noqa: E402


def say(msg):
    print("== " + msg, flush=True)


def main():
    p = argparse.ArgumentParser(description=__doc__)
    p.add_argument("--lib", required=True)
    p.add_argument("--build", required=True)
    a = p.parse_args()
    why = vm.skip_reason(a.build)
    if why:
        sys.exit("demo: cannot run the guest: %s" % why)
    kernel, initramfs = vm.vm_files(a.build)
    work = e2e.work_dir("demo_vm")
    host = vm.Host(os.path.abspath(a.lib), work)
    guest = None
    try:
        say("dpdk-testpmd: port 0 net_zorv1 on %s, port 1 net_tap into namespace %s (%s)"
            % (host.sock, vm.NS, vm.HOST_ADDR))
        host.start()
        host.fwd_start()
        say("booting the guest (QEMU, TCG): virtio-net-pci on the port's socket")
        guest = vm.Guest(host.sock, work, kernel, initramfs)
        secs = guest.boot()
        host.wait_link("up", 60)
        say("guest up in %.1f s; port 0 link up" % secs)
        print(guest.sh_ok("ip -4 -o addr show eth0 | awk '{print $2, $4}'; ethtool -k eth0 | "
                          "grep -E '^(tx-checksumming|tcp-segmentation-offload):'"))
        say("ping namespace -> guest through the port")
        rtt = vm.ping(in_ns(vm.NS), vm.GUEST_ADDR, 5)
        print("round trips (ms): " + " ".join("%.2f" % x for x in rtt))
        say("ping guest -> namespace through the port")
        print(guest.sh_ok("ping -c 5 -W 5 %s" % vm.HOST_ADDR).strip())
        time.sleep(0.5)
        host.fwd_stop()
        say("port 0 (net_zorv1): statistics")
        out = host.pmd.cmd("show port stats 0")
        print("\n".join(l for l in out.splitlines() if l.strip()))
        xs = e2e.parse_xstats(host.pmd.cmd("show port xstats 0"))
        print("  " + ", ".join("%s=%d" % (n, v) for n, v in xs
                                if v and re.match(r"[rt]x_(good|total|multicast|broadcast"
                                                  r"|unicast|size_64)", n)))
        say("telemetry /zorv1/port_info,net_zorv1")
        print(host.port_info())
        say("demo done: the guest's traffic went through net_zorv1")
    finally:
        if guest is not None:
            guest.close()
        host.remove()
        e2e.remove_tree(work)


if __name__ == "__main__":
    try:
        main()
    except e2e.E2EFailure as e:
        sys.exit("demo: %s" % e)
