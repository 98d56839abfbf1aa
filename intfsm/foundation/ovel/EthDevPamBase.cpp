#include "intfsm/foundation/ovel/EthDevPamBase.h"

#include <linux/if_packet.h>

#include <cstring>
#include <ctime>
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
  auto const * end = static_cast<unsigned char const *>(header.msg_control) + header.msg_controllen;
  bool tagged = false;  // the first valid tag is the frame's; the walk goes on only for the time
  for (cmsghdr * c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
    // Only what lies inside the control bytes is read; nothing after a message that does not is trusted.
    size_t const room = static_cast<size_t>(end - reinterpret_cast<unsigned char const *>(c));
    if (c->cmsg_len < sizeof(cmsghdr) || c->cmsg_len > room) return;
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS && c->cmsg_len >= CMSG_LEN(sizeof(timespec))) {
      timespec when;
      std::memcpy(&when, CMSG_DATA(c), sizeof when);
      pkt.rxTimeIs(uint64_t(when.tv_sec) * 1000000000u + uint64_t(when.tv_nsec));
      continue;
    }
    if (tagged || c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
    if (c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata))) continue;
    tpacket_auxdata aux;
    std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if (!(aux.tp_status & TP_STATUS_VLAN_VALID)) continue;
    pkt.newSeparateVlanTag(aux.tp_vlan_tci,
                           (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) ? aux.tp_vlan_tpid : Pkt::defaultVlanTpid);
    tagged = true;
  }
}

}  // namespace Ovel
