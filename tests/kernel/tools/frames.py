#!/usr/bin/python3
# Sends the tools' test frames out of one device with scapy: `frames.py DEVICE NAME...`, each NAME one
# frame of the table below, in order. Run inside the sender's namespace (ip netns exec).
import sys
import logging
logging.getLogger("scapy.runtime").setLevel(logging.ERROR)
from scapy.config import conf
from scapy.layers.l2 import ARP, Dot1AD, Dot1Q, Ether
from scapy.layers.inet import IP, TCP, UDP
from scapy.layers.inet6 import IPv6
from scapy.packet import Raw
from scapy.sendrecv import sendp
from scapy.contrib.lldp import (LLDPDU, LLDPDUChassisID, LLDPDUPortID, LLDPDUTimeToLive, LLDPDUEndOfLLDPDU)
from scapy.contrib.lacp import SlowProtocol, LACP

src, dst = "02:00:00:00:00:01", "ff:ff:ff:ff:ff:ff"
eth = lambda: Ether(src=src, dst=dst)
dns = lambda: IP(src="10.0.0.1", dst="10.0.0.2") / UDP(sport=3333, dport=53) / Raw(b"q" * 20)
arp = lambda: ARP(op=1, psrc="10.0.0.1", pdst="10.0.0.2", hwsrc=src)
lldp = lambda: (LLDPDU() / LLDPDUChassisID(subtype=4, id=src) / LLDPDUPortID(subtype=5, id="port7") /
                LLDPDUTimeToLive(ttl=120) / LLDPDUEndOfLLDPDU())

frames = {
    "exp": lambda: Ether(src=src, dst=dst, type=0x88b5) / Raw(b"x" * 46),
    "exp-v100": lambda: eth() / Dot1Q(vlan=100, prio=3, type=0x88b5) / Raw(b"x" * 46),
    "arp": lambda: eth() / arp(),
    "arp-v4094": lambda: eth() / Dot1Q(vlan=4094, prio=5) / arp(),
    "dns": lambda: eth() / dns(),
    "dns-v200": lambda: eth() / Dot1Q(vlan=200) / dns(),
    "tcp6": lambda: eth() / IPv6(src="fd00::1", dst="fd00::2") / TCP(sport=40000, dport=80),
    "qinq": lambda: eth() / Dot1AD(vlan=30, prio=1) / Dot1Q(vlan=300, prio=2) / dns(),
    "dot1q-dot1q": lambda: eth() / Dot1Q(vlan=10) / Dot1Q(vlan=20, type=0x88b5) / Raw(b"x" * 46),
    "lldp": lambda: Ether(src=src, dst="01:80:c2:00:00:0e") / lldp(),
    "lacp": lambda: Ether(src=src, dst="01:80:c2:00:00:02") / SlowProtocol() / LACP(actor_system="02:00:00:00:00:09", actor_key=7, actor_port_number=3, actor_state=0x3d),
    "big": lambda: eth() / dns() / Raw(b"b" * 1452),
}

conf.verb = 0
device = sys.argv[1]
sendp([frames[name]() for name in sys.argv[2:]], iface=device, verbose=False)
