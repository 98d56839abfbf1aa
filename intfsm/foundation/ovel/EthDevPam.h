// A packet-access endpoint on one kernel network device, named after the device ("et1", "veth-a0").
//
// It either receives through a socket that a bundle shares among many devices (the bundle reads and
// hands frames over with rxPktIs / writeNewRxPkt), or, with `perIntfSocket`, through a raw packet
// socket of its own that it opens when enabled:
//
//   Vorn::Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam("va0");
//   pam->netNsIs(Ovel::NamespaceName("blue"));
//   pam->ethProtocolIs(0x88b5);
//   pam->perIntfSocketIs(true);
//   pam->enabledIs(true);            // opens, configures and binds the socket; may raise ErrnoException
//   ... readers watch readableCount and take frames with rxPkt() (see Pam) ...
//   pam->txPkt(frame);               // out of va0
//   pam->enabledIs(false);           // closes the socket
//
// Options, each with xIs that compares, stores and notifies onX():
//   netNs              namespace of the device; empty or "default" = the process's own
//   allMulticast       own socket: join PACKET_MR_ALLMULTI on the device
//   sockRcvBuf         own socket: receive buffer in bytes (SO_RCVBUFFORCE); 0 = the kernel's default
//   sockPrio           own socket: SO_PRIORITY, 0..15, 0 = leave it; more raises Vorn::RangeException
//                      "EthDevPam::sockPrio < 0 or > 15 not allowed"
//   broadcast          own socket: SO_BROADCAST
//   pktReuse           own socket: read into the saved packets (savedPacket slots 0..socketReadLimit-1,
//                      made from the global packet manager when a slot is empty) instead of a new
//                      packet per frame; with a reader that keeps up, nothing is allocated per frame
//   separateDot1QHdr   own socket: PACKET_AUXDATA, so VLAN tags arrive beside the frame (Pkt::vlanTag)
//   perIntfSocket      receive through a socket of its own; cannot change while enabled
//   socketReadLimit    frames read per readable event, 1..1024 (default 15); else Vorn::RangeException
//                      "EthDevPam::socketReadLimit < 1 or > 1024 not allowed"
//   createVornFileDescOnEnabled  own socket: watch it on the event loop (a Vorn::FileDescriptor whose
//                      readable events call doGetRxPkt); without it the owner calls doGetRxPkt itself
//   ifIndex            the device's kernel index; an own socket looks it up by name when it is 0
//   sd                 the descriptor frames come through, -1 for none: the bundle's shared socket
//                      (set by its manager) or the own socket (set by enabling). An outside value is
//                      refused while the own socket is open; below -1 is refused
//                      ("EthDevPam::sd < -1 not allowed").
//   enabled            see below
// The own socket is named "Pam socket" for "Pam <name> in namespace <ns>" in the registry of descriptors
// (Vorn/Descriptors.h); out of descriptors (EMFILE, ENFILE) enabling raises Vorn::ErrnoException with the
// text "cannot open Pam socket for Pam <name> in namespace <ns>, errno: 24 (out of descriptors)", traced
// at level 0 once until such a socket opens again.
// The socket options take effect when the own socket is opened; changing them while it is open changes
// nothing on that socket, except the filter program, which is re-attached at once.
//
// Receive path rules (what a bundle checks before handing a frame over):
//   usable()  = the Pam has an interface and a descriptor: ifIndex != 0 and sd >= 0;
//   enabled() = the `enabled` attribute.
// A frame is delivered only to a Pam that is both; one that is usable but disabled is skipped quietly.
// Disabling drops the frames still waiting (counted in queueDropCount).
//
// Enabling with perIntfSocket, in order: socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, protocol 0) in
// netNs (protocol 0 delivers nothing until the bind); the ifindex by name (SIOCGIFINDEX) when ifIndex
// is 0; PACKET_AUXDATA; SO_TIMESTAMPNS (Pkt::rxTime); SO_PRIORITY; SO_RCVBUFFORCE; SO_ATTACH_FILTER
// when the program is not empty; bind to ifIndex and ethProtocol (ETH_P_ALL when 0) -- the filter is
// in place before any frame can arrive; SO_BROADCAST; PACKET_ADD_MEMBERSHIP; then the FileDescriptor.
// Notified in that order: ifIndex (when looked up), sd, fileDesc, enabled. A failed step closes the
// socket, puts ifIndex back, leaves enabled false and sd -1, traces at level 0 and raises
// Vorn::ErrnoException with the errno and "EthDevPam::enabled failed to <step> on <device>, errno: <n>",
// the steps being "create socket", "find ifindex", "set PACKET_AUXDATA", "set TIMESTAMPNS",
// "set PRIORITY", "set rcvbuf size", "attach filter", "bind", "set broadcast flag", "set allMulticast",
// "watch the socket".
// Disabling drops the FileDescriptor first, then closes the socket; notifies fileDesc, sd, enabled.
// Destroying an enabled Pam closes its socket too.
//
// Reading (doGetRxPkt, own socket only): up to socketReadLimit frames per call, each stored with
// rxPktIs and announced with readableCountInc(1), so a reader that takes one frame per notification
// sees every frame. With enableBulkReadOnOwnSocket() (EthDevPamInBundle with enableBulkPamRead and
// pktReuse) one recvmmsg takes the batch. Outgoing frames (the host's own transmissions) are skipped.
// EAGAIN ends the call quietly; other errors are traced and counted in rxErrors. Frames longer than
// maxRxPktData are cut to it. Every path (own or shared socket, single, bulk or ring read) stamps the
// packet with the kernel's receive time (Pkt::rxTime).
//
// Tagged frames and a Pam bound to one EtherType: the kernel takes a received frame's outer VLAN tag
// out of the bytes. Sockets bound to all EtherTypes get it in the aux data; but when no VLAN device
// takes the tag, the kernel clears it and marks the frame for another host before sockets bound to one
// EtherType see it, and those match the type after the outer tag. So such a Pam receives tagged
// frames of its EtherType without any tag; a QinQ frame reaches one bound to 0x8100 without its outer
// tag; one bound to 0x8100 never receives a single-tagged frame. Only a Pam bound to all EtherTypes
// sees every tag.
//
// Transmit: through `sd` -- the own socket or the bundle's shared one -- with sendto to a sockaddr_ll
// naming ifIndex, so the frame leaves by this device either way. A separate VLAN tag is put back into
// the frame. Without a descriptor the frame is refused with ENOTCONN, without an ifindex with ENXIO;
// the kernel's own refusals (ENETDOWN, EMSGSIZE, ENOBUFS, EAGAIN ...) are reported as Pam describes.
// After EAGAIN or ENOBUFS on a watched own socket, the Pam asks the loop for writability and raises
// writableCountInc(1) when the socket can take frames again.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPamBase.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/FileDescriptor.h"

namespace Ovel {

class RxBatch;

class EthDevPam : public EthDevPamBase {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPam, EthDevPamBase::NotifieeConst> {
   public:
    virtual void onNetNs() {}
    virtual void onAllMulticast() {}
    virtual void onSockRcvBuf() {}
    virtual void onSockPrio() {}
    virtual void onBroadcast() {}
    virtual void onPktReuse() {}
    virtual void onSeparateDot1QHdr() {}
    virtual void onPerIntfSocket() {}
    virtual void onSocketReadLimit() {}
    virtual void onEnabled() {}
    virtual void onSd() {}
    virtual void onIfIndex() {}
    virtual void onCreateVornFileDescOnEnabled() {}
    virtual void onFileDesc() {}
  };

  static constexpr int32_t defaultSocketReadLimit = 15;
  static constexpr int32_t maxSocketReadLimit = 1024;
  static constexpr uint32_t maxSockPrio = 15;

  explicit EthDevPam(Vorn::Name const & deviceName);

  NamespaceName const & netNs() const noexcept { return netNs_; }
  void netNsIs(NamespaceName const & ns) { set(netNs_, ns, &NotifieeConst::onNetNs); }
  bool allMulticast() const noexcept { return allMulticast_; }
  void allMulticastIs(bool on) { set(allMulticast_, on, &NotifieeConst::onAllMulticast); }
  uint32_t sockRcvBuf() const noexcept { return sockRcvBuf_; }
  void sockRcvBufIs(uint32_t bytes) { set(sockRcvBuf_, bytes, &NotifieeConst::onSockRcvBuf); }
  uint32_t sockPrio() const noexcept { return sockPrio_; }
  void sockPrioIs(uint32_t prio);
  bool broadcast() const noexcept { return broadcast_; }
  void broadcastIs(bool on) { set(broadcast_, on, &NotifieeConst::onBroadcast); }
  bool pktReuse() const noexcept { return pktReuse_; }
  void pktReuseIs(bool on) { set(pktReuse_, on, &NotifieeConst::onPktReuse); }
  bool separateDot1QHdr() const noexcept { return separateDot1QHdr_; }
  void separateDot1QHdrIs(bool on) { set(separateDot1QHdr_, on, &NotifieeConst::onSeparateDot1QHdr); }
  bool perIntfSocket() const noexcept { return perIntfSocket_; }
  void perIntfSocketIs(bool on);
  int32_t socketReadLimit() const noexcept { return socketReadLimit_; }
  void socketReadLimitIs(int32_t limit);
  bool createVornFileDescOnEnabled() const noexcept { return createVornFileDescOnEnabled_; }
  void createVornFileDescOnEnabledIs(bool on) {
    set(createVornFileDescOnEnabled_, on, &NotifieeConst::onCreateVornFileDescOnEnabled);
  }
  uint32_t ifIndex() const noexcept { return ifIndex_; }
  void ifIndexIs(uint32_t ifIndex) { set(ifIndex_, ifIndex, &NotifieeConst::onIfIndex); }
  int sd() const noexcept { return sd_; }
  void sdIs(int sd);

  bool enabled() const noexcept { return enabled_; }
  // May raise Vorn::ErrnoException (see above); nothing changes then.
  void enabledIs(bool on);

  // The descriptor in `sd` was opened by this Pam (perIntfSocket, enabled).
  bool ownSocket() const noexcept { return ownSocket_; }
  // The event-loop watch of the own socket; null when there is none.
  Vorn::Ptr<Vorn::FileDescriptor const> fileDesc() const { return fileDesc_; }

  bool usable() const noexcept { return ifIndex_ != 0 && sd_ >= 0; }

  // Re-attaches the program to an open own socket first; if the kernel refuses it, raises
  // Vorn::ErrnoException "EthDevPam::filterProgram failed to attach filter on <device>, errno: <n>" and
  // keeps the previous program (still attached).
  void filterProgramIs(SockFilterProgram const & program) override;

  // Reads the own socket (see Reading above); does nothing unless enabled with an own socket.
  void doGetRxPkt() override;

 protected:
  ~EthDevPam() override;
  int doSendPkt(Pkt const & pkt) override;
  // Whether reading the own socket takes whole batches with recvmmsg.
  virtual bool enableBulkReadOnOwnSocket() const { return false; }

 private:
  class VornFileDesc;
  struct BulkSlots;

  static constexpr char socketPurpose[] = "Pam socket";
  void doOpenSocket();
  // Closes the own socket; with `notifying`, publishes fileDesc and sd on the way.
  void doCloseSocket(bool notifying);
  // The packet to read the i-th frame of this call into; null when none can be had (counted).
  Vorn::Ptr<Pkt> rxBufferFor(int32_t i);
  void doReadSingle();
  void doReadBulk();
  // Hands one received frame to the reader; false when the reader's handler closed the socket.
  bool doDeliver(Pkt & pkt, msghdr & header, uint32_t length);
  void handleWritable();

  NamespaceName netNs_;
  bool allMulticast_ = false;
  uint32_t sockRcvBuf_ = 0;
  uint32_t sockPrio_ = 0;
  bool broadcast_ = false;
  bool pktReuse_ = false;
  bool separateDot1QHdr_ = false;
  bool perIntfSocket_ = false;
  int32_t socketReadLimit_ = defaultSocketReadLimit;
  bool createVornFileDescOnEnabled_ = true;
  uint32_t ifIndex_ = 0;
  int sd_ = -1;
  bool enabled_ = false;
  bool ownSocket_ = false;
  Vorn::Ptr<Vorn::FileDescriptor> fileDesc_;
  Vorn::Ptr<VornFileDesc> fileDescReactor_;
  std::unique_ptr<BulkSlots> bulk_;
  std::unique_ptr<RxBatch> single_;  // the single read's header, made on the first read
};

}  // namespace Ovel
