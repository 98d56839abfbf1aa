// The part common to every Ethernet packet-access object: which frames it wants (Ethernet protocol,
// listen address, socket filter) and how much of each frame it keeps (maxRxPktData).
//
// Both kinds of endpoint build on it: a per-interface EthDevPam (named after its kernel device) and a
// bundle that receives for many interfaces on one shared socket (named with the empty name).
//
//   pam->ethProtocolIs(0x88cc);                        // LLDP; 0 means every protocol
//   pam->filterProgramIs(Ovel::SockFilterProgram{...}); // endpoints with a socket re-attach it
//
// Defaults: ethProtocol 0 (all), maxRxPktData 1518 (an untagged frame without FCS), listenAddr
// 00:00:00:00:00:00 (none), an empty filter program. Each mutator compares, stores and notifies.
// maxRxPktData of 0 (every frame would arrive empty) or above PktManager::maxHeadData raises
// Vorn::RangeException "EthDevPamBase::maxRxPktData < 1 or > 262144 not allowed".
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "intfsm/foundation/ovel/EthAddr.h"
#include "intfsm/foundation/ovel/Pam.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"

namespace Ovel {

class EthDevPamBase : public Pam {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamBase, Pam::NotifieeConst> {
   public:
    virtual void onEthProtocol() {}
    virtual void onMaxRxPktData() {}
    virtual void onListenAddr() {}
    virtual void onFilterProgram() {}
  };

  static constexpr uint32_t defaultMaxRxPktData = 1518;

  explicit EthDevPamBase(Vorn::Name const & name);

  // Ethernet protocol in host order (0x0806 for ARP); 0 = every protocol.
  uint16_t ethProtocol() const noexcept { return ethProtocol_; }
  void ethProtocolIs(uint16_t protocol) { set(ethProtocol_, protocol, &NotifieeConst::onEthProtocol); }

  uint32_t maxRxPktData() const noexcept { return maxRxPktData_; }
  void maxRxPktDataIs(uint32_t bytes);

  EthAddr const & listenAddr() const noexcept { return listenAddr_; }
  void listenAddrIs(EthAddr const & addr) { set(listenAddr_, addr, &NotifieeConst::onListenAddr); }

  SockFilterProgram const & filterProgram() const noexcept { return filterProgram_; }
  // Endpoints with a socket override it to attach the new program.
  virtual void filterProgramIs(SockFilterProgram const & program);

 protected:
  ~EthDevPamBase() override;

  // What the receive paths of every endpoint with a packet socket share (see also RxBatch).
  // Gives `pkt` the VLAN tag that the kernel took out of the frame, when the PACKET_AUXDATA message
  // of `header` carries one (tag protocol 0x8100 unless the kernel names another), and the kernel's
  // receive time, when an SCM_TIMESTAMPNS message is there.
  static void vlanTagFromAuxData(Pkt & pkt, msghdr & header);

 private:
  uint16_t ethProtocol_ = 0;
  uint32_t maxRxPktData_ = defaultMaxRxPktData;
  EthAddr listenAddr_;
  SockFilterProgram filterProgram_;
};

}  // namespace Ovel
