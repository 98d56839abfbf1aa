// The receive path's VLAN code: Ovel::EthDevPamBase::vlanTagFromAuxData, given arbitrary control
// messages as recvmsg would leave them (the input is the control buffer, exactly its size, so that a
// read past it is caught). The tag given to the packet must be the one a careful reader finds: the
// first PACKET_AUXDATA message that lies whole inside the buffer, holds a whole tpacket_auxdata and
// says TP_STATUS_VLAN_VALID; no tag when there is none.
// Narrow on purpose: the receive path around it (the ifindex lookup, the endpoints) is driven by the
// bundle's own tests; if the helper moves, this target follows it.
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "intfsm/foundation/ovel/EthDevPamBase.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/ovel/PktManager.h"

namespace {

// The helper is for the endpoints' own receive paths; a derived name reaches it without a library change.
struct Reach : Ovel::EthDevPamBase {
  using EthDevPamBase::vlanTagFromAuxData;
};

struct Tag {
  bool present = false;
  uint16_t tci = 0;
  uint16_t tpid = 0;
};

// The reference reader: walks by hand, trusting no length it has not checked.
Tag expected(uint8_t const * control, size_t size) {
  size_t at = 0;
  while (size - at >= sizeof(cmsghdr)) {
    cmsghdr c;
    std::memcpy(&c, control + at, sizeof c);
    if (c.cmsg_len < sizeof(cmsghdr) || c.cmsg_len > size - at) break;
    if (c.cmsg_level == SOL_PACKET && c.cmsg_type == PACKET_AUXDATA && c.cmsg_len >= CMSG_LEN(sizeof(tpacket_auxdata))) {
      tpacket_auxdata aux;
      std::memcpy(&aux, control + at + CMSG_LEN(0), sizeof aux);
      if (aux.tp_status & TP_STATUS_VLAN_VALID) {
        return {true, aux.tp_vlan_tci,
                static_cast<uint16_t>((aux.tp_status & TP_STATUS_VLAN_TPID_VALID) ? aux.tp_vlan_tpid : 0x8100)};
      }
    }
    size_t const step = CMSG_ALIGN(c.cmsg_len);
    if (step >= size - at) break;
    at += step;
  }
  return {};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  // No byte more than the input; operator new aligns it for cmsghdr.
  std::unique_ptr<uint8_t[]> const buffer(new uint8_t[size]);
  uint8_t * const control = buffer.get();
  if (size != 0) std::memcpy(control, data, size);
  msghdr header{};
  header.msg_control = control;
  header.msg_controllen = size;
  Vorn::Ptr<Ovel::Pkt> pkt = Ovel::globalPktManager().newPkt();
  FUZZ_CHECK(pkt, "a packet");
  Reach::vlanTagFromAuxData(*pkt, header);
  Tag const want = expected(control, size);
  FUZZ_CHECK(pkt->hasVlanTag() == want.present, std::to_string(size));
  if (want.present) FUZZ_CHECK(pkt->vlanTci() == want.tci && pkt->vlanTpid() == want.tpid, std::to_string(pkt->vlanTci()));
  return 0;
}
