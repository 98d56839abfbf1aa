# The Python module driven as an agent drives the library: oper-state into the kernel, frames in and
# out through a SimpleTxRxPktManager written in Python, filters, errors, and no leak of library
# objects when Python callbacks and library objects refer to each other.
import gc
import json
import os
import socket
import subprocess
import threading
import time

import pytest

import intfsm

ETH_P_ALL = 0x0003


def kernel_operstate(ns, device):
    out = subprocess.run(["ip", "-n", ns, "-j", "link", "show", device], check=True, capture_output=True,
                         text=True).stdout
    return json.loads(out)[0]["operstate"]


class Agent:
    """What an agent holds: two interfaces' status, their devices in this namespace, and the wiring of
    the oper-state root and the simple packet-access manager over them."""

    def __init__(self):
        self.all = intfsm.AllIntfStatusDir("all")
        self.allLocal = intfsm.AllIntfStatusLocalDir("allLocal")
        self.status = {}
        for intf, device in (("Ethernet1", "et1"), ("Ethernet2", "et2")):
            status = intfsm.IntfStatus(intf)
            status.deviceName = device
            self.all.intfStatusIs(status)
            self.allLocal.intfStatusLocalIs(intfsm.IntfStatusLocal(intf))
            self.status[intf] = status

    def oper_state(self):
        kos = intfsm.KernelOperState.rootFactory("kos")
        kos.kosmIs()
        for status in self.status.values():
            kos.intfStatusDirIs("intfStatus").intfStatusIs(status)
            kos.intfStatusLocalDirIs("intfStatusLocal").intfStatusLocalIs(self.allLocal.intfStatusLocal(status.intfId))
        kos.netNsCollectionIs("netNs")
        kos.netNsManagerIs(kos.netNsCollection)
        kos.intfStatusOperStatusSmIs(kos.intfStatusDir, kos.intfStatusLocalDir, kos.kosm, kos.netNsCollection)
        return kos

    def packets(self):
        self.kernel = intfsm.KernelNetInfo.Status("kernel")
        self.kernel.enabled = True
        packets = intfsm.SimpleEthDevPamManager(self.all, self.allLocal, self.kernel)
        packets.initialized = True
        return packets


def configure(manager):
    manager.ethProtocol = ETH_P_ALL  # every EtherType (0 would bind to none)
    manager.separateDot1QHdr = True  # VLAN tags beside the frame, as the kernel took them out
    manager.handleInitialized()
    manager.enabled = True


class Receiver(intfsm.SimpleTxRxPktManager):
    """A receiver with a packet-access manager of its own (initializedTxRx), over the device directory
    that the simple manager fills from the kernel."""

    def __init__(self, packets):
        super().__init__(packets.deviceIntfStatusDir)
        self.desiredIntfDirIs("desired")
        self.initializedTxRx = True
        configure(self.ethDevPamManager)
        self.frames = []

    def handleRx(self, pam, intfId, pkt):
        self.frames.append((intfId, pkt.data, pkt.vlanId, pkt.ifIndex))


SOL_PACKET, PACKET_AUXDATA, TP_STATUS_VLAN_VALID = 263, 8, 0x10


def peer_socket(device):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
    s.bind((device, 0))
    s.settimeout(2.0)
    return s


def peer_recv(s):
    """A frame as the peer's kernel hands it over: its bytes and the VLAN tag taken out of them (or None)."""
    data, ancillary, _, _ = s.recvmsg(2048, socket.CMSG_SPACE(32))
    for level, kind, aux in ancillary:
        if (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
            status, tci = int.from_bytes(aux[0:4], "little"), int.from_bytes(aux[16:18], "little")
            return data, (tci if status & TP_STATUS_VLAN_VALID else None)
    return data, None


def frame(ethertype, payload=b"x" * 46, dst=b"\xff" * 6, src=b"\x02\x00\x00\x00\x00\x01"):
    return dst + src + ethertype.to_bytes(2, "big") + payload


def test_oper_state_reaches_the_kernel(lab):
    agent = Agent()
    kos = agent.oper_state()
    status = agent.status["Ethernet1"]
    seen = []
    watch = status.watch(seen.append)
    for oper, kernel in [(intfsm.intfOperUp, "UP"), (intfsm.intfOperDown, "DORMANT"), (intfsm.intfOperUp, "UP"),
                         (intfsm.intfOperLowerLayerDown, "DORMANT")]:
        status.operStatus = oper
        assert intfsm.run_until(lambda: kernel_operstate(lab, "et1") == kernel, 2.0), (oper, kernel)
    assert seen == ["operStatus"] * 4
    assert kernel_operstate(lab, "et2") == "DORMANT"  # Ethernet2 follows its own status (not present)
    watch.close()
    del kos


@pytest.fixture
def receiver(lab):
    agent = Agent()
    packets = agent.packets()
    r = Receiver(packets)
    assert r.addIntfPam("Ethernet1")
    assert intfsm.run_until(lambda: r.pam("Ethernet1") is not None, 3.0)
    yield r
    r.delIntfPam("Ethernet1")
    intfsm.run_once(0)


def test_frames_from_scapy_reach_handleRx(lab, receiver):
    from scapy.layers.l2 import Dot1Q, Ether
    from scapy.packet import Raw
    from scapy.sendrecv import sendp

    plain = Ether(src="02:00:00:00:00:01", dst="ff:ff:ff:ff:ff:ff", type=0x88b5) / Raw(b"p" * 46)
    tagged = Ether(src="02:00:00:00:00:01", dst="ff:ff:ff:ff:ff:ff") / Dot1Q(vlan=7, type=0x88b5) / Raw(b"t" * 46)
    sendp([plain, tagged, plain], iface="peer1", verbose=False)
    assert intfsm.run_until(lambda: len(receiver.frames) >= 3, 2.0)
    ifindex = socket.if_nametoindex("et1")
    assert receiver.frames == [("Ethernet1", bytes(plain), None, ifindex),
                               ("Ethernet1", bytes(plain)[:12] + b"\x88\xb5" + b"t" * 46, 7, ifindex),
                               ("Ethernet1", bytes(plain), None, ifindex)]
    assert receiver.numRcvd == 3


def test_transmit_bytes_with_a_vlan_tag(lab, receiver):
    pam = receiver.pam("Ethernet1")
    with peer_socket("peer1") as peer:
        assert pam.txPkt(frame(0x88b5, b"u" * 46))
        assert pam.txPkt(intfsm.Pkt(frame(0x88b5, b"v" * 46), vlanTci=0x2009))
        got = [peer_recv(peer) for _ in range(2)]
    assert got == [(frame(0x88b5, b"u" * 46), None), (frame(0x88b5, b"v" * 46), 0x2009)]
    with pytest.raises(ValueError, match="Pam::txPkt of a frame shorter than 14 bytes not allowed"):
        pam.txPkt(b"short")


ONLY_88B5 = "{ 0x28, 0, 0, 0x0000000c }, { 0x15, 0, 1, 0x000088b5 }, { 0x6, 0, 0, 0x00040000 }, { 0x6, 0, 0, 0 }"


def test_apply_filter_installs_a_program_the_kernel_applies(lab, receiver, monkeypatch):
    monkeypatch.setenv("ETHDEVPAMMANAGER_TESTING", "1")
    assert receiver.applyFilter(ONLY_88B5) is True
    assert receiver.bpfFilter == intfsm.parseFilter(ONLY_88B5) == [(0x28, 0, 0, 12), (0x15, 0, 1, 0x88b5),
                                                                   (0x6, 0, 0, 0x40000), (0x6, 0, 0, 0)]
    with peer_socket("peer1") as peer:
        for ethertype in (0x0800, 0x88b5, 0x0806, 0x88b5):
            peer.send(frame(ethertype))
    assert intfsm.run_until(lambda: len(receiver.frames) >= 2, 2.0)
    intfsm.run_until(lambda: False, 0.2)
    assert [f[1][12:14] for f in receiver.frames] == [b"\x88\xb5", b"\x88\xb5"]

    # A bad text changes nothing, here or in the kernel.
    for bad in ["{ 0x28, 0, 0 }", "no braces", "{ 0x6, 0, 0, 0 }, { 0x28"]:
        with pytest.raises(ValueError, match="not a filter program"):
            receiver.applyFilter(bad)
    assert receiver.bpfFilter == intfsm.parseFilter(ONLY_88B5)
    with peer_socket("peer1") as peer:
        peer.send(frame(0x0800))
        peer.send(frame(0x88b5))
    assert intfsm.run_until(lambda: len(receiver.frames) >= 3, 2.0)
    intfsm.run_until(lambda: False, 0.2)
    assert len(receiver.frames) == 3


@pytest.mark.parametrize("action, error, text", [
    (lambda: intfsm.IntfStatusLocal("Ethernet1").__setattr__("netNsName", "n" * 151), ValueError,
     "NamespaceName::bytes > 150 not allowed"),
    (lambda: Agent().packets().ethDevPamManager.__setattr__("sockPrio", 16), ValueError,
     "EthDevPamManager::sockPrio < 0 or > 15 not allowed"),
    (lambda: intfsm.KernelOperState.rootFactory("k").intfStatusDirIs("d").intfStatusIs(None), ValueError,
     'null _intfStatus parameter to mutator for KernelOperState::IntfStatusDir::intfStatus not allowed"'),
    (lambda: intfsm.trace_file("/nonexistent-dir/trace"), FileNotFoundError, ""),
    (lambda: intfsm.trace_configure("Module/12"), ValueError, "Module/12"),
])
def test_library_errors_become_python_exceptions(lab, action, error, text):
    with pytest.raises(error) as raised:
        action()
    assert text in str(raised.value)
    if isinstance(raised.value, OSError):
        assert raised.value.errno == 2


def test_trace_lines_reach_python(lab):
    lines = []
    intfsm.trace_configure("SimpleTxRxPktManager/5")
    intfsm.trace_sink(lambda module, level, text: lines.append((module, level, text)))
    try:
        r = intfsm.simpleTxRxPktManagerFactory(intfsm.DeviceIntfStatusDir("d"))
        r.desiredIntfDirIs("desired")
        r.addIntfPam("Ethernet9")
        r.addIntfPam("Ethernet9")  # present already: no second line
    finally:
        intfsm.trace_sink(None)
        intfsm.trace_configure("SimpleTxRxPktManager/0")
    assert lines == [("SimpleTxRxPktManager", 5, "SimpleTxRxPktManager: Adding Ethernet9 to the desired list")]


def test_asyncio_drives_the_loop(lab, receiver):
    import asyncio

    async def main():
        loop = asyncio.get_running_loop()
        loop.add_reader(intfsm.loop_fd(), intfsm.run_once)
        try:
            with peer_socket("peer1") as peer:
                peer.send(frame(0x88b5))
            for _ in range(200):
                if receiver.frames:
                    return True
                await asyncio.sleep(0.01)
            return False
        finally:
            loop.remove_reader(intfsm.loop_fd())

    assert asyncio.run(main())


def test_the_gil_is_released_while_the_loop_waits(lab):
    ticks, stop = [], threading.Event()

    def other_thread():
        while not stop.is_set():
            ticks.append(1)
            time.sleep(0.001)

    thread = threading.Thread(target=other_thread)
    thread.start()
    try:
        time.sleep(0.02)
        before = len(ticks)
        intfsm.run_until(lambda: False, 0.3)
        during = len(ticks) - before
    finally:
        stop.set()
        thread.join()
    assert during > 30  # about 300 when the wait lets go of the GIL, none when it does not


def test_reference_cycles_are_collected(lab):
    devices = intfsm.DeviceIntfStatusDir("devices")

    class Cyclic(intfsm.SimpleTxRxPktManager):
        def __init__(self):
            super().__init__(devices)
            self.desiredIntfDirIs("desired")
            self.watch_ = self.watch(self.changed)  # self -> watch -> bound method -> self
            self.counted = 0

        def changed(self, attribute, *key):
            self.counted += 1

        def handleRx(self, pam, intfId, pkt):
            pass

    def round_():
        c = Cyclic()
        c.addIntfPam("Ethernet1")
        c.numSent = 5
        status = intfsm.IntfStatus("Ethernet1")
        watch = status.watch(lambda attr: (status.mtu, watch))  # watch -> lambda -> watch
        status.mtu = 9000
        assert c.counted == 1

    gc.collect()
    round_()
    gc.collect()
    before = intfsm.live_objects()
    for _ in range(10_000):
        round_()
    gc.collect()
    assert intfsm.live_objects() == before
