#!/usr/bin/python3
# The Python module's costs, each against its reference in the same run:
# - an attribute set from Python (status.mtu = v) with one C++ notifiee bound (the oper-state machine's
#   reactor on that status) against the same sets made by a C++ loop;
# - frames received in Python through a SimpleTxRxPktManager subclass's handleRx against scapy's own
#   sniff, each draining the same number of frames queued on the same device of a namespace of its own.
# Prints a table and one "json: {...}" line (scripts/bench merges it). Root; usage:
#   bench_intfsm.py [--quick | --smoke]
import json
import os
import socket
import subprocess
import sys
import time

import intfsm

mode = sys.argv[1] if len(sys.argv) > 1 else "--full"
sets = {"--smoke": 20_000, "--quick": 200_000}.get(mode, 1_000_000)
frames = {"--smoke": 500, "--quick": 5_000}.get(mode, 20_000)
reps = 1 if mode == "--smoke" else 3


def median(values):
    values = sorted(values)
    return values[len(values) // 2]


def oper_state_wired_status():
    status, local = intfsm.IntfStatus("Ethernet1"), intfsm.IntfStatusLocal("Ethernet1")
    status.deviceName = "et1"
    kos = intfsm.KernelOperState.rootFactory("kos")
    kos.kosmIs()
    kos.intfStatusDirIs("s").intfStatusIs(status)
    kos.intfStatusLocalDirIs("l").intfStatusLocalIs(local)
    kos.netNsManagerIs(kos.netNsCollectionIs("netNs"))
    kos.intfStatusOperStatusSmIs(kos.intfStatusDir, kos.intfStatusLocalDir, kos.kosm, kos.netNsCollection)
    return kos, status


def attribute_sets():
    kos, status = oper_state_wired_status()
    py_ns, cpp_ns = [], []
    for _ in range(reps):
        t0 = time.perf_counter()
        for i in range(sets):
            status.mtu = i
        py_ns.append((time.perf_counter() - t0) / sets * 1e9)
        cpp_ns.append(intfsm._timed_mtu_sets(status, sets) / sets * 1e9)
    return median(py_ns), median(cpp_ns)


def ip(*args):
    subprocess.run(["ip"] + list(args), check=True, capture_output=True)


def enter(ns):
    import ctypes
    fd = os.open(f"/run/netns/{ns}", os.O_RDONLY)
    try:
        if ctypes.CDLL(None, use_errno=True).setns(fd, 0x40000000) != 0:
            raise OSError(ctypes.get_errno(), "setns")
    finally:
        os.close(fd)


FRAME = b"\xff" * 6 + b"\x02\x00\x00\x00\x00\x01" + b"\x88\xb5" + b"x" * 46


def blast(count):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind(("peer1", 0))
    for _ in range(count):
        s.send(FRAME)
    s.close()


def receive_rates():
    from scapy.config import conf
    from scapy.sendrecv import sniff

    class Receiver(intfsm.SimpleTxRxPktManager):
        count = 0

        def handleRx(self, pam, intfId, pkt):
            Receiver.count += 1
            pkt.data  # what a Python reader does first: the bytes

    all, allLocal = intfsm.AllIntfStatusDir("all"), intfsm.AllIntfStatusLocalDir("allLocal")
    status = intfsm.IntfStatus("Ethernet1")
    status.deviceName = "et1"
    all.intfStatusIs(status)
    allLocal.intfStatusLocalIs(intfsm.IntfStatusLocal("Ethernet1"))
    kernel = intfsm.KernelNetInfo.Status("kernel")
    kernel.enabled = True
    packets = intfsm.SimpleEthDevPamManager(all, allLocal, kernel)
    packets.initialized = True
    manager = packets.ethDevPamManager
    manager.sockRcvBuf = 256 << 20
    manager.ethProtocol = 0x0003  # ETH_P_ALL
    manager.handleInitialized()
    manager.enabled = True
    r = Receiver(packets.deviceIntfStatusDir, packets.pamCollection)
    r.desiredIntfDirIs(packets.desiredIntfDir)
    r.addIntfPam("Ethernet1")
    if not intfsm.run_until(lambda: r.pam("Ethernet1") is not None, 3.0):
        raise RuntimeError("no packet endpoint on et1")

    ours, theirs, delivered = [], [], []
    for _ in range(reps):
        Receiver.count = 0
        blast(frames)
        t0 = time.perf_counter()
        intfsm.run_until(lambda: Receiver.count >= frames, 30.0)
        ours.append(Receiver.count / (time.perf_counter() - t0))
        delivered.append(Receiver.count / frames)

        listen = conf.L2listen(iface="et1")
        listen.ins.setsockopt(socket.SOL_SOCKET, 33, 256 << 20)  # SO_RCVBUFFORCE
        blast(frames)
        t0 = time.perf_counter()
        got = sniff(opened_socket=listen, count=frames, timeout=60, store=False)
        theirs.append(frames / (time.perf_counter() - t0))
        listen.close()
    r.delIntfPam("Ethernet1")
    intfsm.run_once(0)
    return median(ours), median(theirs), min(delivered)


def main():
    py_ns, cpp_ns = attribute_sets()
    ns = f"intfsmpybench-{os.getpid()}"
    ip("netns", "add", ns)
    home = os.open("/proc/self/ns/net", os.O_RDONLY)
    try:
        subprocess.run(["ip", "netns", "exec", ns, "sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1",
                        "net.ipv6.conf.default.disable_ipv6=1"], check=True)
        ip("-n", ns, "link", "add", "et1", "type", "veth", "peer", "name", "peer1")
        ip("-n", ns, "link", "set", "et1", "up")
        ip("-n", ns, "link", "set", "peer1", "up")
        enter(ns)
        ours, theirs, delivered = receive_rates()
    finally:
        import ctypes
        ctypes.CDLL(None).setns(home, 0x40000000)
        os.close(home)
        subprocess.run(["ip", "netns", "del", ns], check=False)
    print(f"{'figure':40} {'value':>12}")
    print(f"{'Python attribute set, ns':40} {py_ns:12.1f}")
    print(f"{'C++ attribute set, ns':40} {cpp_ns:12.1f}")
    print(f"{'Python set / C++ set':40} {py_ns / cpp_ns:12.1f}")
    print(f"{'handleRx in Python, frames/s':40} {ours:12.0f}")
    print(f"{'scapy sniff, frames/s':40} {theirs:12.0f}")
    print(f"{'handleRx / sniff':40} {ours / theirs:12.2f}")
    print(f"{'handleRx delivered ratio':40} {delivered:12.3f}")
    print("json: " + json.dumps({"python_set_ns": round(py_ns, 1), "cpp_set_ns": round(cpp_ns, 1),
                                  "python_set_vs_cpp": round(py_ns / cpp_ns, 1),
                                  "python_rx_fps": round(ours), "scapy_sniff_fps": round(theirs),
                                  "python_rx_vs_scapy": round(ours / theirs, 2)}, separators=(",", ":")))


main()
