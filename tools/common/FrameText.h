// Frames as the tools show and store them.
//
//   std::vector<uint8_t> wire;
//   Tools::wireFrameOf(*pkt, wire);                // the frame as on the wire: VLAN tag put back
//   puts(Tools::frameLine(now, "va0", wire.data(), wire.size()).c_str());
//   // 14:02:03.123456 va0 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, ethertype 0x88b5, vlan 100, length 64
#pragma once

#include <sys/time.h>

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

// One line per frame: local time with microseconds, device, source > destination, EtherType (the
// inner one of a tagged frame), VLAN id when tagged, and the length on the wire. A frame shorter
// than an Ethernet header is shown as such.
std::string frameLine(timeval const & when, std::string_view device, uint8_t const * wire, size_t length);

}  // namespace Tools
