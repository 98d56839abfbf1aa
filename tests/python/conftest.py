# The lab of the Python module's tests: a network namespace of their own that the whole test process
# enters (so that the library's "default" namespace is the lab), with two veth pairs, et1/peer1 and
# et2/peer2, all up, without IPv6. Root only; removed on every path.
import ctypes
import os
import subprocess

import pytest

CLONE_NEWNET = 0x40000000


def _setns(fd):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.setns(fd, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def ip(*args, ns=None):
    cmd = ["ip"] + (["-n", ns] if ns else []) + list(args)
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


@pytest.fixture(scope="session")
def lab():
    if os.geteuid() != 0:
        pytest.skip("the lab needs root (network namespaces and veth pairs)")
    name = f"intfsmpy-{os.getpid()}"
    ip("netns", "add", name)
    home = os.open("/proc/self/ns/net", os.O_RDONLY)
    try:
        # No IPv6: its router and listener messages would be frames the tests did not send.
        subprocess.run(["ip", "netns", "exec", name, "sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1",
                        "net.ipv6.conf.default.disable_ipv6=1"], check=True)
        for port in ("1", "2"):
            ip("link", "add", "et" + port, "type", "veth", "peer", "name", "peer" + port, ns=name)
            ip("link", "set", "et" + port, "up", ns=name)
            ip("link", "set", "peer" + port, "up", ns=name)
        lab_fd = os.open(f"/run/netns/{name}", os.O_RDONLY)
        try:
            _setns(lab_fd)
        finally:
            os.close(lab_fd)
        yield name
    finally:
        _setns(home)
        os.close(home)
        subprocess.run(["ip", "netns", "del", name], check=False)
