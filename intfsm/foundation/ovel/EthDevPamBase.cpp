#include "intfsm/foundation/ovel/EthDevPamBase.h"

#include <linux/if_packet.h>

#include <cstring>
#include <string>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

EthDevPamBase::EthDevPamBase(Vorn::Name const & name) : Pam(name) {}

EthDevPamBase::~EthDevPamBase() = default;

void EthDevPamBase::maxRxPktDataIs(uint32_t bytes) {
  if (bytes < 1 || bytes > PktManager::maxHeadData) {
    throw Vorn::RangeException("EthDevPamBase::maxRxPktData < 1 or > " + std::to_string(PktManager::maxHeadData) +
                               " not allowed");
  }
  set(maxRxPktData_, bytes, &NotifieeConst::onMaxRxPktData);
}

void EthDevPamBase::filterProgramIs(SockFilterProgram const & program) {
  set(filterProgram_, program, &NotifieeConst::onFilterProgram);
}

void EthDevPamBase::vlanTagFromAuxData(Pkt & pkt, msghdr & header) {
  for (cmsghdr * c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
    if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata aux;
    std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if (!(aux.tp_status & TP_STATUS_VLAN_VALID)) continue;
    pkt.newSeparateVlanTag(aux.tp_vlan_tci,
                           (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) ? aux.tp_vlan_tpid : Pkt::defaultVlanTpid);
    return;
  }
}

}  // namespace Ovel
