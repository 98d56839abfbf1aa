// Frames as the tools show and store them.
//
//   std::vector<uint8_t> wire;
//   Tools::wireFrameOf(*pkt, wire);                // the frame as on the wire: VLAN tag put back
//   puts(Tools::frameLine(Tools::receiveTime(*pkt), "va0", wire.data(), wire.size(), wire.size()).c_str());
//   // 14:02:03.123456 va0 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, vlan 100 p 0, ethertype 0x0806, length 64: ARP, Request who-has 10.0.0.2 tell 10.0.0.1
#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "intfsm/foundation/ovel/EthAddr.h"
#include "intfsm/foundation/ovel/Pkt.h"

namespace Tools {

// A frame to send: addresses, EtherType, an optional VLAN id and the length on the wire.
struct FrameFields {
  Ovel::EthAddr destination{Ovel::EthAddr::Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  Ovel::EthAddr source{Ovel::EthAddr::Bytes{0x02, 0, 0, 0, 0, 0x01}};
  uint16_t etherType = 0x88b5;  // local experimental
  int vlan = -1;                // 0..4095, or -1 for an untagged frame
  uint32_t length = 64;         // on the wire, tag included; at least 14 (18 tagged)
};

// A packet from the process's packet manager holding the frame (payload: `sequence` then zeros),
// its VLAN tag kept beside the bytes for the transmitter to put in; null when no packet is left.
Vorn::Ptr<Ovel::Pkt> framePktOf(FrameFields const & fields, uint32_t sequence);

// Fills `out` with the frame's bytes as they were on the wire: when the kernel reported the 802.1Q
// tag beside the frame, it goes back after the source address (4 more bytes).
void wireFrameOf(Ovel::Pkt const & pkt, std::vector<uint8_t> & out);

// When the frame was received. The one place the programs take a frame's time from: the kernel's
// receive time the packet carries, or the time it is handled when the packet has none.
timespec receiveTime(Ovel::Pkt const & pkt);

// One line per frame: local time with microseconds, device, source > destination, every VLAN tag
// (id and priority, outer first), the EtherType after them, the length on the wire, and a summary of
// ARP, IPv4, IPv6 (addresses, protocol, ports), LLDP and LACP. `caplen` bytes of the frame's `len`
// are at `wire`; what lies beyond them is not decoded. A frame shorter than an Ethernet header is
// shown as such.
std::string frameLine(timespec const & when, std::string_view device, uint8_t const * wire, size_t caplen, size_t len);

// The summary after the colon of frameLine (empty for other protocols); `type` is the EtherType after
// the tags and `payload` what follows it.
std::string protocolSummary(uint16_t type, uint8_t const * payload, size_t length);

}  // namespace Tools
