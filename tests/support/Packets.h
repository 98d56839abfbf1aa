// Frames and packets for the packet tests.
//
//   Ptr<Ovel::Pkt> pkt = IntfsmTest::pktOf(IntfsmTest::frameBytes(0x88b5, "payload"));
//   EXPECT_EQ(IntfsmTest::bytesOf(pam->rxPkt()), "...");
#pragma once

#include <cstdint>
#include <string>

#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/ovel/PktManager.h"

namespace IntfsmTest {

// The packet's data as text; "(none)" for a null packet.
inline std::string bytesOf(Vorn::Ptr<Ovel::Pkt> const & pkt) {
  return pkt ? std::string(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen()) : "(none)";
}

// A packet of `manager` (the global one by default) holding `bytes`.
inline Vorn::Ptr<Ovel::Pkt> pktOf(std::string const & bytes, Ovel::PktManager & manager = Ovel::globalPktManager()) {
  Vorn::Ptr<Ovel::Pkt> pkt = manager.newPkt();
  if (pkt) pkt->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
  return pkt;
}

// An Ethernet frame: broadcast destination, source 02:00:00:00:00:01, `type`, then `payload`.
inline std::string frameBytes(uint16_t type, std::string const & payload) {
  std::string f("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01", 12);
  f += static_cast<char>(type >> 8);
  f += static_cast<char>(type & 0xff);
  return f + payload;
}

// A local experimental EtherType: nothing else on a test link uses it.
inline constexpr uint16_t testProtocol = 0x88b5;

// A broadcast frame of `length` bytes of type `type` whose first payload byte (offset 14) is `tag`,
// padded with 0x5a.
inline std::string frame(char tag, uint16_t type = testProtocol, size_t length = 60) {
  std::string f = frameBytes(type, std::string(1, tag));
  f.resize(length, static_cast<char>(0x5a));
  return f;
}

}  // namespace IntfsmTest
