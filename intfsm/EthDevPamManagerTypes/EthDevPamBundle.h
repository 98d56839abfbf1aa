// One raw packet socket shared by many interfaces, instead of one socket per interface.
//
// The packet-access manager makes one bundle, configures it (ethProtocol, filter program, buffers),
// enables it, and for every interface that joins asks for the descriptor the interface shares:
//
//   auto bundle = Vorn::Ptr<EthDevPamBundle>(new EthDevPamBundle(desired, deviceIntfStatusDir, pams));
//   bundle->ethProtocolIs(0x88b5);
//   bundle->pktReuseIs(true);
//   bundle->enableBulkPamReadIs(true);
//   bundle->enabledIs(true);                        // no socket yet
//   int sd = bundle->doGetSd("et1");                 // opens the common socket on first use; counted
//   pam->ifIndexIs(7); pam->sdIs(sd); pam->enabledIs(true);
//   pams->intfPamIs(Ovel::IntfId("Ethernet1"), pam); // frames from ifindex 7 now reach `pam`
//   bundle->doSetRcvBuf(sd);                        // re-size for the interfaces now sharing it
//   ...
//   bundle->doUnrefSd(sd);                           // the interface leaves; the last one closes the sockets
//   bundle->enabledIs(false);                        // closes both sockets
//
// Sockets. At most two: the common socket `sd`, and the tap socket `sdTap` for kernel software
// devices ("tun", "veth") when the protocol is the fabric pseudo-protocol 0x002A; the tap socket
// receives every protocol behind a three-instruction guard that drops 0x002A. `sdRef`/`sdTapRef`
// count the interfaces on each; the sockets are closed when disabled, and also as soon as no interface
// is left on either (see doUnrefSd). Every failure while a socket is
// set up closes the descriptor in hand, leaves the bundle as it was, traces the failed step and raises
// Vorn::ErrnoException with the errno of the failed call (Vorn::Exception for a kernel limit file
// with bad content). doSetRcvBuf closes `sock` whenever it raises; when that socket is one of the
// bundle's, it makes the bundle forget it as well (sd -1, count 0, no watch). Out of descriptors
// (EMFILE, ENFILE) for a socket, the level-0 trace is "cannot open bundle socket for bundle <name> in
// namespace <ns>, errno: 24 (out of descriptors)" ("bundle tap socket", "bundle scratch socket"), once
// while the shortage lasts (the scratch socket's every time: its caller sees the raise at once), and
// the exception carries that text. Each open socket is named in the registry of descriptors
// (Vorn/Descriptors.h) with that purpose and scope until its one close.
//
// Filters. A new program is tried first on a scratch socket (filterProgramTry), so that only a program
// the kernel accepts ever reaches a live socket. attachOrDetachFilter departs from the plain
// SO_ATTACH_FILTER-then-close in two ways, both so that a filter change can never mute a socket:
// an empty program is detached with SO_DETACH_FILTER (the kernel refuses to attach an empty one;
// "nothing attached" counts as done), and a refusal leaves the socket open with its old program in
// force (the kernel keeps it) instead of closing it under the Pams that share it.
//
// Receiving. A readable socket (EthDevPamBundleFdSm sets currActiveSd around the call) is read by
// doGetRxPkt: frame by frame (one recvmsg each, each frame delivered before the next is read) until none is
// left, bulkReadQuota frames were read, or a reader did not take its frame in place (one on an activity, or
// a slow one: the frames after it wait in the socket, none is replaced); or, with enableBulkPamRead, up to
// bulkReadQuota (at most 128) frames per recvmmsg into packets made once. Each frame goes to the Pam
// published in the Pam collection for the interface that the device interface-status directory names for
// the frame's ifindex; a Pam takes it when it is usable (ifIndex != 0 and sd >= 0) and enabled (see
// Ovel::EthDevPam). Frames the host sent itself are skipped uncounted; frames of an unknown ifindex count
// in noPamDropCount, those of an interface without a usable, enabled Pam in pamNotReadyDropCount. In bulk
// mode the readers are called after the batch; a reader that takes some of its frames is called again
// at once until it has them all. One that takes none of them is saved (it stays in actPamCollection)
// and served again with its next frame, or on the "edpBundleActivity" activity as soon as it takes a
// frame on its own (schedPktDelivery counts those reschedules); it is never re-armed at once, which
// would keep the loop busy for as long as the frames wait. (Rescheduling at once after every pass that
// found a reader idle spins the process at 100 % of a core while its frames are left unread.) Frames
// handed to a Pam are never overwritten by a later read: the Pam keeps its own packet sharing the buffer,
// and the next read into that slot takes a fresh buffer while the old one is held. In the single-frame path
// the frame is also the bundle's own receive packet (rxPkt) until the next read begins; one nobody took is
// let go then, uncounted. Per frame nothing is allocated in the steady state (pktReuse, bulk slots),
// nothing formatted unless a trace level is on, and every lookup is a hash lookup.
//
// Ring mode (rxRing, off by default). Each socket opened while rxRing is on receives through a
// PACKET_RX_RING of the TPACKET_V2 format that the bundle maps, instead of through recvmsg/recvmmsg:
//
//   bundle->rxRingIs(true);               // before the first doGetSd; sockets already open keep their way
//   bundle->rxRingBlockCountIs(256);      // 256 x 64 KiB = 16 MiB of ring per socket
//
// A readable ring is read like the bulk path: up to bulkReadQuota frames per readable event, each
// copied out of its ring slot into the packet of a bulk slot (savedBulkPkt) and the ring slot handed
// back to the kernel at once, so a slow reader holds packets, never the ring; then the frames are
// delivered and the readers called exactly as in bulk mode (same lookup, counters, traces, deferred
// delivery on the activity). The interface comes from the slot's address (sll_ifindex); frames the
// host sent (PACKET_OUTGOING) are skipped uncounted; with separateDot1QHdr the VLAN tag comes from
// the slot header (tp_vlan_tci when TP_STATUS_VLAN_VALID, tp_vlan_tpid when TP_STATUS_VLAN_TPID_VALID,
// else 0x8100). Ring mode reads into the bulk slots whatever pktReuse and enableBulkPamRead say.
// Why TPACKET_V2: every frame is the reader's as soon as the kernel has written it, so a frame waits
// for nothing but the loop (TPACKET_V3 hands frames over a block at a time, when the block is full
// or its retire timer fires, at least 1 ms later on a quiet link).
// Geometry, read when a socket is opened: rxRingFrameSize bytes per frame slot (0, the default: the
// smallest that holds the slot header and maxRxPktData bytes of frame, 1600 for 1518), as many slots
// per rxRingBlockSize bytes (a multiple of the page size, default 64 KiB) as fit, rxRingBlockCount
// blocks (default 64). A geometry the kernel refuses fails set-up like any other step. The socket's
// receive buffer plays no part in ring mode: the ring is the buffer. Frames longer than a slot, or
// than maxRxPktData, arrive cut to that length. The ring is set up after PACKET_AUXDATA and
// SO_PRIORITY, before anything else (set-up failures: "failed to set PACKET_VERSION", "failed to set
// PACKET_RX_RING", "failed to map the ring"), and unmapped whenever its socket is closed.
//
// Receive moderation (rxModeration, off by default; for ring mode and the bulk path). A socket is
// read on readiness, a wake-up per arrival, for as long as frames come slowly. When the readable
// events within one rxModerationIntervalUs bring rxModerationBatch frames or more between them (a
// rate: 16 in 100 us is 160,000 frames/s), two intervals running (a burst alone is not a storm), the socket stops asking for readiness and is read instead
// every rxModerationIntervalUs microseconds on the loop's clock: a ring by its slots' status words, no
// system call, the bulk path by recvmmsg; each firing reads until a read comes back short of the
// quota (at most moderationPassFrames frames, then again on the next pass). A firing that finds
// fewer than half a batch per interval (weighed by the time since the last firing: the loop wakes
// late) hands the socket back to readiness (the gap keeps a rate near the threshold from switching
// at every pass); frames that came meanwhile are reported on the next
// pass, so none waits for a wake-up that never comes. The rate is counted over the interval, not per
// wake-up: a reader that wakes at once finds one or two frames each time, however busy the link.
// So a quiet link costs a wake-up per frame and is answered at once, and a storm costs one pass per
// interval however many frames it brings, and does not make the kernel wake the reader for each
// one. The single-frame path is never moderated. rxModerationEntries counts the switches to timed
// reads. The defaults (16 frames, 100 us) are measured ones: at 100 us a storm's frames wait no
// longer than an immediate reader's, which is itself saturated then; 200 us and more cut the CPU per
// frame further but double the latency. Rates below 160,000 frames/s keep their immediate wake-ups;
// once timed, reads stay timed down to 80,000.
// Why not a TPACKET_V3 ring with a short retire timeout: its blocks are handed over when full or
// at the timeout, which the kernel keeps at one millisecond or more, so a quiet link waits for it.
//
//   bundle->rxModerationIs(true);            // applies from the next readable event
//   bundle->rxModerationBatchIs(16);         // 1..128, else Vorn::RangeException
//   bundle->rxModerationIntervalUsIs(100);   // 1..1000000, else Vorn::RangeException
//
// Shape: each socket is one slot {descriptor, count, watch, descriptor state machine, ring}, held
// twice (common, tap); the attributes sd, sdRef, fileDesc and the tap's read and write the slots.
// A socket has one open path (doSocketCreateProto, whose guard closes and forgets the new socket on
// every early exit and puts the buffer sizes back), its options come from one table, and it has one
// close path (doSocketDrop). Sources by job: EthDevPamBundle.cpp (attributes, protocol choice,
// joining and leaving, enabled), EthDevPamBundleSocket.cpp (set-up, sizing, filters, closing),
// EthDevPamBundleReceive.cpp (receive paths, Pam notifications), EthDevPamBundleRing.cpp (the ring).
//
// Threading: everything runs on the event loop's one thread; nothing is locked.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleFdSm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/ovel/EthDevPamBase.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/ovel/RxBatch.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"
#include "intfsm/foundation/vorn/Clock.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/FileDescriptor.h"

namespace Interface {

class EthDevPamBundle : public Ovel::EthDevPamBase, private Ovel::EthDevPamInBundle::ReaderListener {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamBundle, Ovel::EthDevPamBase::NotifieeConst> {
   public:
    virtual void onNetNs() {}
    virtual void onAllMulticast() {}
    virtual void onSockRcvBuf() {}
    virtual void onSockPrio() {}
    virtual void onPerIntfSockRcvBuf() {}
    virtual void onAllocRcvBuf() {}
    virtual void onBroadcast() {}
    virtual void onPktReuse() {}
    virtual void onSavedPkt() {}
    virtual void onNonBlocking() {}
    virtual void onSeparateDot1QHdr() {}
    virtual void onSharedSockBufMax() {}
    virtual void onNoPamDropCount() {}
    virtual void onPamNotReadyDropCount() {}
    virtual void onPerIntfSocket() {}
    virtual void onPerIntfRlimit() {}
    virtual void onEnabled() {}
    virtual void onCurrActiveSd() {}
    virtual void onSd() {}
    virtual void onFileDesc() {}
    virtual void onSdRef() {}
    virtual void onSdTap() {}
    virtual void onFileDescTap() {}
    virtual void onSdTapRef() {}
    virtual void onEnableBulkPamRead() {}
    virtual void onBulkReadQuota() {}
    virtual void onMmsgInitialized() {}
    virtual void onSavedBulkPkt(uint16_t /*slot*/) {}
    virtual void onSavedBulkPktvornImmediate() {}
    virtual void onMaxProcessedPkts() {}
    virtual void onSchedPktDelivery() {}
    virtual void onRxRing() {}
    virtual void onRxRingBlockSize() {}
    virtual void onRxRingBlockCount() {}
    virtual void onRxRingFrameSize() {}
    virtual void onRxModeration() {}
    virtual void onRxModerationBatch() {}
    virtual void onRxModerationIntervalUs() {}
    virtual void onRxModerationEntries() {}
  };

  using SavedBulkPktMap = Vorn::Collection<uint16_t, Vorn::Ptr<Ovel::Pkt>>;

  static constexpr uint32_t defaultSharedSockBufMax = 0x15200000;  // 338 MiB
  static constexpr uint32_t maxBulkReadQuota = 128;
  static constexpr uint32_t maxSockPrio = 15;
  // Every this many frames the single-frame path traces how full the socket's queue is.
  static constexpr uint32_t queueProbeInterval = 300;
  static constexpr uint32_t defaultRxRingBlockSize = 1u << 16;
  static constexpr uint32_t defaultRxRingBlockCount = 64;
  static constexpr uint32_t minRxRingFrameSize = 128;
  static constexpr uint32_t defaultRxModerationBatch = 16;
  static constexpr uint32_t defaultRxModerationIntervalUs = 100;
  static constexpr uint32_t maxRxModerationIntervalUs = 1000000;
  // The most frames one moderated firing reads from a socket before it lets the loop run.
  static constexpr uint32_t moderationPassFrames = 4096;

  // Ethernet protocols (host order) that decide the socket's protocol.
  static constexpr uint16_t ethPAll = 0x0003;
  static constexpr uint16_t ethPFabric = 0x002A;  // frames that only the fabric devices carry
  static constexpr uint16_t ethPArp = 0x0806;
  static constexpr uint16_t ethPIp = 0x0800;
  static constexpr uint16_t ethPIpv6 = 0x86DD;

  EthDevPamBundle(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                  Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                  Vorn::Ptr<EthDevPamCollection> const & pamCollection);

  char const * vornTypeName() const override { return "Interface::EthDevPamBundle"; }

  Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir() const { return desiredIntfDir_; }
  Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir() const { return deviceIntfStatusDir_; }
  Vorn::Ptr<EthDevPamCollection> const & pamCollection() const { return pamCollection_; }
  // The Pams whose readers a bulk read has still to call; present while enabled in bulk mode.
  Vorn::Ptr<EthDevPamCollection> const & actPamCollection() const { return actPamCollection_; }
  Vorn::Ptr<EthDevPamBundleFdSm> const & fdSm() const { return sockets_[common].fdSm; }
  Vorn::Ptr<EthDevPamBundleFdSm> const & fdSmTap() const { return sockets_[tap].fdSm; }

  // ---- attributes, in declaration order ----
  Ovel::NamespaceName const & netNs() const { return netNs_; }
  void netNsIs(Ovel::NamespaceName const & v) { set(netNs_, v, &NotifieeConst::onNetNs); }
  bool allMulticast() const { return allMulticast_; }
  void allMulticastIs(bool v) { set(allMulticast_, v, &NotifieeConst::onAllMulticast); }
  uint32_t sockRcvBuf() const { return sockRcvBuf_; }
  void sockRcvBufIs(uint32_t v) { set(sockRcvBuf_, v, &NotifieeConst::onSockRcvBuf); }
  uint32_t sockPrio() const { return sockPrio_; }
  // Above 15 raises Vorn::RangeException "EthDevPamBundle::sockPrio < 0 or > 15 not allowed".
  void sockPrioIs(uint32_t v);
  uint32_t perIntfSockRcvBuf() const { return perIntfSockRcvBuf_; }
  void perIntfSockRcvBufIs(uint32_t v) { set(perIntfSockRcvBuf_, v, &NotifieeConst::onPerIntfSockRcvBuf); }
  uint32_t allocRcvBuf() const { return allocRcvBuf_; }
  void allocRcvBufIs(uint32_t v) { set(allocRcvBuf_, v, &NotifieeConst::onAllocRcvBuf); }
  bool broadcast() const { return broadcast_; }
  void broadcastIs(bool v) { set(broadcast_, v, &NotifieeConst::onBroadcast); }
  bool pktReuse() const { return pktReuse_; }
  void pktReuseIs(bool v) { set(pktReuse_, v, &NotifieeConst::onPktReuse); }
  Vorn::Ptr<Ovel::Pkt> const & savedPkt() const { return savedPkt_; }
  void savedPktIs(Vorn::Ptr<Ovel::Pkt> const & v) { set(savedPkt_, v, &NotifieeConst::onSavedPkt); }
  bool nonBlocking() const { return nonBlocking_; }
  void nonBlockingIs(bool v) { set(nonBlocking_, v, &NotifieeConst::onNonBlocking); }
  bool separateDot1QHdr() const { return separateDot1QHdr_; }
  void separateDot1QHdrIs(bool v) { set(separateDot1QHdr_, v, &NotifieeConst::onSeparateDot1QHdr); }
  uint32_t sharedSockBufMax() const { return sharedSockBufMax_; }
  void sharedSockBufMaxIs(uint32_t v) { set(sharedSockBufMax_, v, &NotifieeConst::onSharedSockBufMax); }
  uint32_t noPamDropCount() const { return noPamDropCount_; }
  void noPamDropCountIs(uint32_t v) { set(noPamDropCount_, v, &NotifieeConst::onNoPamDropCount); }
  void noPamDropCountInc(uint32_t n = 1) { noPamDropCountIs(noPamDropCount_ + n); }
  uint32_t pamNotReadyDropCount() const { return pamNotReadyDropCount_; }
  void pamNotReadyDropCountIs(uint32_t v) { set(pamNotReadyDropCount_, v, &NotifieeConst::onPamNotReadyDropCount); }
  void pamNotReadyDropCountInc(uint32_t n = 1) { pamNotReadyDropCountIs(pamNotReadyDropCount_ + n); }
  bool perIntfSocket() const { return perIntfSocket_; }
  void perIntfSocketIs(bool v) { set(perIntfSocket_, v, &NotifieeConst::onPerIntfSocket); }
  bool perIntfRlimit() const { return perIntfRlimit_; }
  void perIntfRlimitIs(bool v) { set(perIntfRlimit_, v, &NotifieeConst::onPerIntfRlimit); }
  bool enabled() const { return enabled_; }
  // Stores, runs handleEnabled, then notifies.
  void enabledIs(bool v);
  int currActiveSd() const { return currActiveSd_; }
  void currActiveSdIs(int v) { set(currActiveSd_, v, &NotifieeConst::onCurrActiveSd); }
  // The two sockets' attributes, read from their slots (see Socket below).
  int sd() const { return sockets_[common].sd; }
  void sdIs(int v) { slotSdIs(common, v); }
  // The loop's watch of `sd`, named "edpm"; null while there is no common socket.
  Vorn::Ptr<Vorn::FileDescriptor> const & fileDesc() const { return sockets_[common].watch; }
  Vorn::Ptr<Vorn::FileDescriptor> fileDescNew(Vorn::Name const & name) { return slotWatchNew(common, name); }
  void fileDescDel() { slotWatchDel(common); }
  int sdRef() const { return sockets_[common].ref; }
  void sdRefIs(int v) { slotRefIs(common, v); }
  int sdTap() const { return sockets_[tap].sd; }
  void sdTapIs(int v) { slotSdIs(tap, v); }
  // The loop's watch of `sdTap`, named "edpmTap".
  Vorn::Ptr<Vorn::FileDescriptor> const & fileDescTap() const { return sockets_[tap].watch; }
  Vorn::Ptr<Vorn::FileDescriptor> fileDescTapNew(Vorn::Name const & name) { return slotWatchNew(tap, name); }
  void fileDescTapDel() { slotWatchDel(tap); }
  int sdTapRef() const { return sockets_[tap].ref; }
  void sdTapRefIs(int v) { slotRefIs(tap, v); }
  bool enableBulkPamRead() const { return enableBulkPamRead_; }
  void enableBulkPamReadIs(bool v) { set(enableBulkPamRead_, v, &NotifieeConst::onEnableBulkPamRead); }
  // Frames per readable event, 1..128; else Vorn::RangeException
  // "EthDevPamBundle::bulkReadQuota < 1 or > 128 not allowed" (0 would read nothing, ever).
  uint32_t bulkReadQuota() const { return bulkReadQuota_; }
  void bulkReadQuotaIs(uint32_t v);
  bool mmsgInitialized() const { return mmsgInitialized_; }
  void mmsgInitializedIs(bool v) { set(mmsgInitialized_, v, &NotifieeConst::onMmsgInitialized); }
  // The packets of the bulk slots: slot i receives into savedBulkPkt(i). A null packet deletes the slot.
  Vorn::Ptr<Ovel::Pkt> savedBulkPkt(uint16_t slot) const { return savedBulkPkt_.get(slot); }
  SavedBulkPktMap const & savedBulkPktIter() const { return savedBulkPkt_; }
  uint32_t savedBulkPkts() const { return savedBulkPkt_.size(); }
  void savedBulkPktIs(uint16_t slot, Vorn::Ptr<Ovel::Pkt> const & pkt);
  void savedBulkPktDel(uint16_t slot);
  void savedBulkPktDelAll();
  uint64_t maxProcessedPkts() const { return maxProcessedPkts_; }
  void maxProcessedPktsIs(uint64_t v) { set(maxProcessedPkts_, v, &NotifieeConst::onMaxProcessedPkts); }
  uint32_t schedPktDelivery() const { return schedPktDelivery_; }
  void schedPktDeliveryIs(uint32_t v) { set(schedPktDelivery_, v, &NotifieeConst::onSchedPktDelivery); }
  void schedPktDeliveryInc(uint32_t n = 1) { schedPktDeliveryIs(schedPktDelivery_ + n); }
  // Ring mode and its geometry (see Ring mode above); they apply to the sockets opened afterwards.
  // Values that no kernel takes raise Vorn::RangeException and change nothing: a block size that is
  // not a whole number of pages ("EthDevPamBundle::rxRingBlockSize < 4096 or not a multiple of 4096
  // not allowed", with the page size), a block count of 0 ("EthDevPamBundle::rxRingBlockCount < 1 not
  // allowed"), a frame size other than 0 below 128 or not a multiple of 16 ("EthDevPamBundle::
  // rxRingFrameSize not 0 and < 128 or not a multiple of 16 not allowed").
  bool rxRing() const { return rxRing_; }
  void rxRingIs(bool v) { set(rxRing_, v, &NotifieeConst::onRxRing); }
  uint32_t rxRingBlockSize() const { return rxRingBlockSize_; }
  void rxRingBlockSizeIs(uint32_t v);
  uint32_t rxRingBlockCount() const { return rxRingBlockCount_; }
  void rxRingBlockCountIs(uint32_t v);
  uint32_t rxRingFrameSize() const { return rxRingFrameSize_; }
  void rxRingFrameSizeIs(uint32_t v);
  // Whether `sock` (sd or sdTap) receives through a ring.
  bool rxRingMapped(int sock) const;
  // Receive moderation (see Receive moderation above). A batch outside 1..128 raises
  // Vorn::RangeException "EthDevPamBundle::rxModerationBatch < 1 or > 128 not allowed", an interval
  // outside 1..1000000 "EthDevPamBundle::rxModerationIntervalUs < 1 or > 1000000 not allowed".
  bool rxModeration() const { return rxModeration_; }
  void rxModerationIs(bool v);
  uint32_t rxModerationBatch() const { return rxModerationBatch_; }
  void rxModerationBatchIs(uint32_t v);
  uint32_t rxModerationIntervalUs() const { return rxModerationIntervalUs_; }
  void rxModerationIntervalUsIs(uint32_t v);
  uint64_t rxModerationEntries() const { return rxModerationEntries_; }
  // Whether `sock` is read on the moderation timer now instead of on readiness.
  bool rxModerated(int sock) const;
  // The moderation timer's firing: reads the moderated sockets, hands the quiet ones back to readiness.
  void handleModerationTimer();

  // ---- sockets ----
  // The descriptor that the interface of kernel device `deviceName` shares, counted on it; opens the
  // socket it needs on first use. May raise (see Sockets above); nothing is counted then.
  int doGetSd(Vorn::String const & deviceName);
  // The interface that shared `sock` leaves. A socket that is neither sd nor sdTap, or a count below
  // 0, is a program error (assertion). When no interface is left on either socket, both are closed
  // (and sockRcvBuf is 0 again), so that the next doGetSd opens a fresh socket in whatever namespace
  // has the name netNs by then: a socket kept open would pin a namespace deleted and made again under
  // the same name, and frames of the new one would never arrive.
  void doUnrefSd(int sock);
  // Opens, configures and binds a socket for `ethProto` (host order) as sdTap or sd.
  void doSocketCreateProto(uint16_t ethProto, bool forSdTap);
  // Sizes the receive buffer of `sock` for the interfaces now sharing it.
  void doSetRcvBuf(int sock);
  // The kernel's receive-buffer size of `sock` (0 when it cannot be read), also kept in allocRcvBuf.
  uint32_t doFindRcvBuf(int sock);
  // Raises Vorn::ErrnoException with the kernel's errno when the kernel would refuse `program` on a
  // socket of this bundle, as it is or behind the tap socket's guard; tried on a scratch packet socket
  // in netNs that is bound to nothing (it receives nothing) and closed again. No effect otherwise.
  void filterProgramTry(Ovel::SockFilterProgram const & program) const;
  // Closes both sockets, their watches and descriptor state machines; nothing when neither is open.
  void doSocketClose();

  // What the registry of descriptors (Vorn/Descriptors.h) calls the bundle's sockets, for the scope
  // "bundle <name> in namespace <ns>".
  static constexpr char socketPurpose[] = "bundle socket";
  static constexpr char tapSocketPurpose[] = "bundle tap socket";
  static constexpr char scratchSocketPurpose[] = "bundle scratch socket";
  std::string descriptorScope() const;
  // Closes `sock` when it is one of ours and forgets it (descriptor -1, count 0, no watch); nothing
  // for any other descriptor.
  void doSocketForget(int sock);
  // Frames the kernel dropped on the bundle's sockets for want of room (PACKET_STATISTICS tp_drops of
  // both sockets), summed over the bundle's life. Each call reads the kernel's counters, which the
  // kernel then starts again from 0: read them here, not off sd() and sdTap(). A socket's counters are
  // also read just before it is closed, so that a socket closed between two calls still counts.
  uint64_t kernelDrops();
  // Frames the kernel counted for the bundle's sockets (tp_packets: those queued to be read plus
  // those dropped, so kernelPackets() - kernelDrops() were queued), summed over the bundle's life
  // and read as kernelDrops() is. Frames still queued on a socket when it is closed were counted here
  // and are never read.
  uint64_t kernelPackets();

  // The protocol a socket is opened with for a device, given the bundle's protocol `ethProtocol`,
  // whether the device is a management port ("ma..."), whether this is a namespace-simulated device
  // and whether the fabric device exists.
  static uint16_t socketProtocolFor(uint16_t ethProtocol, bool managementPort, bool namespaceDut, bool fabric);
  // True when the system runs as a namespace-simulated device (no /etc/swi-version); computed on the
  // first call and kept for the life of the process.
  static bool isNamespaceDut();

  // ---- receive path ----
  void doGetRxPkt() override;
  // Reads and delivers one frame. True when the next frame may be read at once: one was read, and
  // its Pam's reader took it in place (or it went to no reader).
  bool doGetRxPktInt();
  uint32_t doGetRxPktIntBulk();
  // Reads the ring of currActiveSd (ring mode). Both return the frames taken from the socket.
  uint32_t doGetRxPktIntRing();
  void doPamNotifications();
  void handleScheduledPktDelivery();
  void handleEnabled();

 protected:
  ~EthDevPamBundle() override;
  void vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const override;

 private:
  // What a frame's ifindex resolves to on the receive path.
  // waiting: stored for a reader that has not taken it yet (single-frame path only).
  enum class Delivery { delivered, waiting, noIntf, notReady };

  // Finds the Pam of a frame from `ifIndex` and hands `pkt` to it (queued, or queued and its reader
  // told at once in the single-frame path); counts and traces the frames that go nowhere.
  Delivery doDeliver(Vorn::Ptr<Ovel::Pkt> const & pkt, uint32_t ifIndex, bool bulk);
  // Looks `ifIndex` up into route_; false (counted, traced) when it names no interface.
  bool doRoute(uint32_t ifIndex, bool bulk);

  // The way the last frame took to its Pam. `known`: it holds for frames of `ifIndex` on the same
  // path while both directories keep the versions noted. `pam` is null when the interface has no Pam
  // of the kind the path needs. `inAct`: the Pam is in actPamCollection while that keeps `actVersion`.
  struct Route {
    bool known = false;
    uint32_t ifIndex = 0;
    bool bulk = false;
    uint64_t devices = 0, pams = 0;
    Ovel::IntfId intfId;
    Ovel::EthDevPam * pam = nullptr;
    bool inAct = false;
    uint64_t actVersion = 0;
  };
  // Makes the bulk slots' packets ready for the next read; with `headers`, the recvmmsg headers too.
  void doBulkSlotsPrepare(bool headers);
  // Delivers the frames in bulk slots [0, count) read from `sock`, then calls the readers.
  void doBulkSlotsDeliver(int sock, uint32_t count);

  // A socket's receive ring: `frames` slots of `frameSize` bytes, `perBlock` of them at the start of
  // each block of `blockSize` bytes. `next` is the slot the kernel fills after the ones taken, at
  // byte `offset`, the `inBlock`-th slot of block `block`.
  struct RxRing {
    unsigned char * base = nullptr;
    size_t bytes = 0;
    uint32_t blockSize = 0, blocks = 0, frameSize = 0, perBlock = 0;
    uint32_t block = 0, inBlock = 0;
    size_t offset = 0;
  };
  // One socket of the bundle and all that belongs to it: the descriptor, the interfaces counted on
  // it, the loop's watch, its descriptor state machine and its ring. It is opened by one path
  // (doSocketCreateProto, whose guard undoes every early exit) and closed by one (doSocketDrop).
  struct Socket {
    int sd = -1;
    int ref = 0;
    Vorn::Ptr<Vorn::FileDescriptor> watch;
    Vorn::Ptr<EthDevPamBundleFdSm> fdSm;
    RxRing ring;
    bool moderated = false;  // read on the moderation timer, readiness off
    double windowStart = 0;  // when the interval that windowFrames counts began
    uint32_t windowFrames = 0;  // frames read on readiness in that interval
    bool busyBefore = false;  // the interval before it brought a batch
  };
  enum Slot : unsigned { common = 0, tap = 1 };
  struct SlotNames;
  static SlotNames const slotNames[2];
  void slotSdIs(Slot slot, int v);
  void slotRefIs(Slot slot, int v);
  Vorn::Ptr<Vorn::FileDescriptor> slotWatchNew(Slot slot, Vorn::Name const & name);
  void slotWatchDel(Slot slot);
  // The slot of `sock`; null when it is neither socket.
  Socket * socketOf(int sock);
  Slot slotOf(Socket const & s) const;
  // The one close path: out of the loop, ring unmapped, closed, forgotten; with `notifying`, the
  // attributes are changed through their mutators (sd, sdRef, fileDesc and the tap's).
  void doSocketDrop(Slot slot, bool notifying);
  // Adds the kernel's PACKET_STATISTICS of `sock` to kernelPackets_ and kernelDrops_.
  void kernelStatisticsRead(int sock);
  // The socket options of one point of the set-up, from a table of {when, option, value, failure}.
  enum class OptionStep { first, afterBind };
  void doSocketOptionsSet(int fd, OptionStep step) const;
  // Sets up and maps the ring of the new socket `fd` in `ring`; on failure traces and raises (the
  // caller closes `fd`).
  void doRxRingSetUp(int fd, RxRing & ring);
  // Unmaps `ring` (if mapped).
  static void doRxRingRelease(RxRing & ring);
  // Copies up to bulkReadQuota frames out of `ring` into the bulk slots and hands their ring slots
  // back; how many it took.
  uint32_t doRxRingTake(RxRing & ring);
  // A saved Pam's reader took a frame: its Pams are served again on the activity.
  void onReaderResumed(Ovel::EthDevPamInBundle & pam) override;
  // No Pam of actPamCollection tells this bundle anything any more.
  void doReaderListenersClear();
  // Closes both sockets, their watches and descriptor state machines.
  void doSocketsClose();
  // One read of currActiveSd by the path it takes (ring, else bulk); the frames taken.
  uint32_t doRxReadOnce();
  // Moves `s` to timed reads (arming the timer) or back to readiness.
  void doModerationCount(Socket & s, uint32_t frames);
  static uint64_t microsecondsBetween(double from, double to);
  void doModerationEnter(Socket & s);
  // A timer pass that finds fewer frames than this hands the socket back to readiness: half the
  // batch, so that a rate near the threshold does not switch modes at every pass.
  uint32_t moderationLeaveFrames() const { return std::max<uint32_t>(rxModerationBatch_ / 2, 1); }
  void doModerationLeave(Socket & s);
  class VornModerationClock;
  void configureRlimitIntfSize(int sock, uint32_t perIntf);
  // Closes `sock` after a failed step (forgetting it when it is one of ours), traces, raises.
  [[noreturn]] void doSocketSetupFailed(int sock, char const * trace, int error);
  // Closes `sock`, forgetting it when it is one of ours.
  void doSocketDropOrClose(int sock);

  Vorn::Ptr<PamDesiredIntfDir const> desiredIntfDir_;
  Vorn::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir_;
  Vorn::Ptr<EthDevPamCollection> pamCollection_;

  Ovel::NamespaceName netNs_ = Ovel::NamespaceName::defaultNamespace();
  bool allMulticast_ = false;
  uint32_t sockRcvBuf_ = 0;
  uint32_t sockPrio_ = 0;
  uint32_t perIntfSockRcvBuf_ = 0;
  uint32_t allocRcvBuf_ = 0;
  bool broadcast_ = false;
  bool pktReuse_ = false;
  Vorn::Ptr<Ovel::Pkt> savedPkt_;
  bool nonBlocking_ = true;
  bool separateDot1QHdr_ = false;
  uint32_t sharedSockBufMax_ = defaultSharedSockBufMax;
  uint32_t noPamDropCount_ = 0;
  uint32_t pamNotReadyDropCount_ = 0;
  bool perIntfSocket_ = false;
  bool perIntfRlimit_ = true;
  bool enabled_ = false;
  int currActiveSd_ = -1;
  Socket sockets_[2];  // the common socket's, the tap socket's
  bool enableBulkPamRead_ = false;
  uint32_t bulkReadQuota_ = maxBulkReadQuota;
  bool mmsgInitialized_ = false;
  SavedBulkPktMap savedBulkPkt_;
  uint64_t maxProcessedPkts_ = 0;
  uint32_t schedPktDelivery_ = 0;
  bool rxRing_ = false;
  uint32_t rxRingBlockSize_ = defaultRxRingBlockSize;
  uint32_t rxRingBlockCount_ = defaultRxRingBlockCount;
  uint32_t rxRingFrameSize_ = 0;
  bool rxModeration_ = false;
  uint32_t rxModerationBatch_ = defaultRxModerationBatch;
  uint32_t rxModerationIntervalUs_ = defaultRxModerationIntervalUs;
  uint64_t rxModerationEntries_ = 0;
  // Fires while a socket is moderated; made on the first switch, bound to the loop's clock.
  Vorn::Ptr<Vorn::Clock::NotifieeConst> moderationClock_;
  double moderationLastPass_ = 0;  // when the timer last read (or was armed): the time a pass covers

  Vorn::Ptr<EthDevPamCollection> actPamCollection_;
  uint64_t kernelDrops_ = 0;
  uint64_t kernelPackets_ = 0;

  // The bulk slots' packets without a hash lookup, kept equal to savedBulkPkt by its mutators.
  std::array<Vorn::Ptr<Ovel::Pkt>, maxBulkReadQuota> bulkPkt_;
  // Slots [0, bulkSlotsDirty_) were filled by the last read and need preparing again; the others are
  // ready as they are while the quota and the frame size stay those they were prepared for.
  uint32_t bulkSlotsDirty_ = 0;
  uint32_t bulkPreparedQuota_ = UINT32_MAX;
  uint32_t bulkPreparedSize_ = 0;
  Route route_;
  // The message headers of the single-frame read and of the bulk read (one per bulk slot; ready while
  // bulkHeadersReady_, until a ring read moves the slots' buffers).
  Ovel::RxBatch singleBatch_{1};
  Ovel::RxBatch bulkBatch_{maxBulkReadQuota};
  bool bulkHeadersReady_ = false;
  // Readers that took nothing in the last notification pass, kept for their capacity.
  std::vector<std::pair<Ovel::IntfId, Vorn::Ptr<Ovel::EthDevPamInBundle>>> savedPams_;
};

// Attaches `filter` (filterLen classic BPF instructions) to `sock` with SO_ATTACH_FILTER. With
// needQuentaFilter and a non-empty filter, three instructions go first that drop frames of the fabric
// pseudo-protocol 0x002A (load the protocol, compare with 0x2A, return 0). With filterLen 0 the
// socket's program is detached (SO_DETACH_FILTER; none attached is no error). A refusal is traced and
// raised as Vorn::ErrnoException with the kernel's errno; `sock` stays open with its old program.
void attachOrDetachFilter(int sock, bool needQuentaFilter, Ovel::SockFilter const * filter, int filterLen);

}  // namespace Interface
