// The bundle's receive paths (single frames, bulk reads; the ring's reads are in
// EthDevPamBundleRing.cpp), how a frame finds its Pam, and the notification of the Pams' readers.
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"

#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"

namespace Interface {

void EthDevPamBundle::doGetRxPkt() {
  EDPM_TRACE(8, "virtual void Interface::EthDevPamBundle::doGetRxPkt()");
  if (!enabled_) return;
  Vorn::Ptr<EthDevPamBundle> keep(references() ? this : nullptr);  // a reader may drop the last reference
  if (rxRingMapped(currActiveSd_) || enableBulkPamRead_) {
    int const sock = currActiveSd_;
    uint32_t const count = doRxReadOnce();
    if (rxModeration_ && enabled_) {
      if (Socket * s = socketOf(sock)) doModerationCount(*s, count);  // a reader may have closed it
    }
  } else {
    EDPM_TRACE(9, "Non-bulk get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
    // Frame by frame, each delivered as it is read, up to bulkReadQuota per readable event: a pass
    // of the loop per frame would cost more than the read itself. A reader may close the socket.
    int const sock = currActiveSd_;
    bool const shared = sock == sd() || sock == sdTap();
    uint32_t const quota = std::max<uint32_t>(bulkReadQuota_, 1);
    for (uint32_t n = 0; n < quota && doGetRxPktInt(); ++n) {
      if (!enabled_ || (shared && sock != sd() && sock != sdTap())) break;
    }
  }
}

bool EthDevPamBundle::doGetRxPktInt() {
  if (!enabled_) return false;
  int const sock = currActiveSd_;
  EDPM_TRACE(9, "Get the pkt on EdpBundle's FileDescriptor: " << sock);
  Vorn::Ptr<Ovel::Pkt> pkt;
  if (pktReuse_) {
    if (!savedPkt_) savedPktIs(Ovel::globalPktManager().newPkt());
    pkt = savedPkt_;
    if (!pkt) {
      EDPM_TRACE(0, "Invalid saved pkt ");
      return false;
    }
    rxPkt();  // the last frame, if nobody took it, goes now: its buffer is read into again
    pkt->sharedDataResetForReuse();  // a fresh buffer when a Pam still holds the last frame
  } else {
    pkt = Ovel::globalPktManager().newPkt();
    if (!pkt) {
      EDPM_TRACE(0, "Invalid pkt ");
      return false;
    }
  }
  pkt->newSharedHeadData(maxRxPktData());  // a larger buffer when maxRxPktData grew since the last read
  uint32_t const maxData = pkt->maxData();
  VORN_ASSERT(maxData >= maxRxPktData());

  singleBatch_.slotIs(0, pkt->data(), maxRxPktData());
  msghdr & header = singleBatch_.header(0);
  sockaddr_ll const & from = singleBatch_.from(0);
  ssize_t const length = Platform::calls().recvmsg(sock, &header, MSG_DONTWAIT);
  int const error = errno;
  uint32_t const ifIndex = static_cast<uint32_t>(from.sll_ifindex);
  EDPM_TRACE(9, "recvmsg: " << length << " pkt type: " << unsigned(from.sll_pkttype) << " ifindex: " << ifIndex);
  if (length < 0) {
    EDPM_TRACE(9, "recvmsg errno: " << error);
    if (error == EAGAIN) return false;
    EDPM_TRACE(0, "recvmsg failed for common sd " << sock << " with errno " << error << " (" << std::strerror(error)
                                                  << ")");
    rxErrorsInc(1);
    return false;
  }
  vlanTagFromAuxData(*pkt, header);
  if (from.sll_pkttype == PACKET_OUTGOING) {
    EDPM_TRACE(3, "Ignoring outgoing packet received on common sd" << sock);
    return true;
  }
  pkt->dataLenIs(static_cast<uint32_t>(length));
  pkt->ifIndexIs(ifIndex);
  pkt->pktTypeIs(from.sll_pkttype);
  rxPkt();  // the last frame, if nobody took it: the newest one replaces it uncounted
  rxPktIs(pkt);
  readableCountInc(1);
  EDPM_TRACE(9, "Received pkt from ifindex: " << ifIndex << " count: " << readableCount());
  if (readableCount() % queueProbeInterval == 0) {
    int queued = 0;
    if (Platform::calls().ioctl(sock, SIOCINQ, &queued) < 0) {
      int const probeError = errno;
      EDPM_TRACE(0, "ioctl SIOCINQ errno: " << probeError);
    }
    if (allocRcvBuf_ == 0) doFindRcvBuf(sock);
    EDPM_TRACE(5, "Recvbuf size: " << allocRcvBuf_ << " used:  " << queued);
  }
  return doDeliver(pkt, ifIndex, false) != Delivery::waiting;
}

bool EthDevPamBundle::doRoute(uint32_t ifIndex, bool bulk) {
  static Vorn::String const cpuIntfName("Cpu");
  Route & route = route_;
  route = Route{};
  Ovel::IntfId const * intfId = nullptr;
  Ovel::IntfId converted;
  if (auto const * entry = deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().find(ifIndex)
                                                : nullptr) {
    EDPM_TRACE(9, "Found IntfStatusAndDeviceName " << *entry);
    if (entry->intfStatus) {
      intfId = &entry->intfStatus->intfId();
    } else {
      Vorn::String const & name = entry->deviceName == "cpu" ? cpuIntfName : entry->deviceName;
      if (auto id = Ovel::IntfId::fromName(name)) {
        converted = *id;
        intfId = &converted;
      } else {
        EDPM_TRACE(0, "Unable to convert device name " << name << " to intfId.");
      }
    }
  }
  if (!intfId) {
    noPamDropCountInc(1);
    EDPM_TRACE(6, "No intfstatus entry for ifindex: " << ifIndex);
    return false;
  }
  route.intfId = *intfId;
  auto const * found = pamCollection_ ? pamCollection_->intfPamIter().find(*intfId) : nullptr;
  Ovel::Pam * const pam = found ? found->ptr() : nullptr;
  route.pam = bulk ? dynamic_cast<Ovel::EthDevPamInBundle *>(pam) : dynamic_cast<Ovel::EthDevPam *>(pam);
  if (route.pam && !ethDevPamManagerTypesTrace.enabled(9)) {  // a hit would skip the traces above
    route.known = true;
    route.ifIndex = ifIndex;
    route.bulk = bulk;
    route.devices = deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().version() : 0;
    route.pams = pamCollection_->intfPamIter().version();
  }
  return true;
}

EthDevPamBundle::Delivery EthDevPamBundle::doDeliver(Vorn::Ptr<Ovel::Pkt> const & frame, uint32_t ifIndex, bool bulk) {
  Route & route = route_;
  // The last frame's way is this one's while neither directory changed since (most frames follow the
  // one before): no lookup, no cast.
  bool const known = route.known && route.ifIndex == ifIndex && route.bulk == bulk &&
                     route.pams == pamCollection_->intfPamIter().version() &&
                     route.devices == (deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().version() : 0);
  if (!known && !doRoute(ifIndex, bulk)) return Delivery::noIntf;
  Ovel::EthDevPam * const edp = route.pam;
  if (!edp || !edp->usable()) {
    pamNotReadyDropCountInc(1);
    EDPM_TRACE(6, "Pam not ready for intfId: " << route.intfId);
    return Delivery::notReady;
  }
  EDPM_TRACE(9, "Pam found for ifindex: " << ifIndex);
  if (!edp->enabled()) {
    pamNotReadyDropCountInc(1);
    return Delivery::notReady;
  }
  if (!bulk) {
    Vorn::Ptr<Ovel::Pam> const keep(edp);  // its reader may withdraw it
    edp->rxPktIs(frame);  // a full queue counts what it refuses; the reader is told all the same
    edp->readableCountInc(1);  // its reader runs now, unless it is deferred
    return edp->rxPkts() == 0 ? Delivery::delivered : Delivery::waiting;
  }
  EDPM_TRACE(9, "Storing packet to EthDevPamInBundle");
  Vorn::Ptr<Ovel::Pam> const keep(edp);  // a handler of the queue's counters may withdraw the Pam
  static_cast<Ovel::EthDevPamInBundle *>(edp)->writeNewRxPkt(frame);
  if (!actPamCollection_) {
    actPamCollection_ = ethDevPamCollectionFactory("actPamCollection");
    route.inAct = false;
  }
  // Once per Pam and read: the collection's version tells whether it is still there since the last frame.
  if (!route.inAct || route.actVersion != actPamCollection_->intfPamIter().version()) {
    Ovel::IntfId const intf = route.intfId;  // a handler may change the route
    actPamCollection_->intfPamIs(intf, keep);
    route.inAct = true;
    route.actVersion = actPamCollection_->intfPamIter().version();
  }
  return Delivery::delivered;
}

void EthDevPamBundle::doBulkSlotsPrepare(bool headers) {
  uint32_t const quota = bulkReadQuota_;
  uint32_t const size = maxRxPktData();
  if (!mmsgInitialized_) {
    for (uint32_t i = 0; i < quota; ++i) {
      savedBulkPktIs(static_cast<uint16_t>(i), Ovel::globalPktManager().newPkt());
      VORN_ASSERT(savedBulkPkt( i ));
    }
    mmsgInitializedIs(true);
  }
  bool const all = bulkPreparedQuota_ != quota || bulkPreparedSize_ != size;
  uint32_t const packets = all ? quota : bulkSlotsDirty_;
  // The headers point into the packets: all of them again when a ring read moved them.
  uint32_t const count = headers && (all || !bulkHeadersReady_) ? quota : packets;
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t const slot = static_cast<uint16_t>(i);
    if (i < packets) {
      if (!bulkPkt_[i]) {  // a quota raised after the first read, or a slot deleted from outside
        savedBulkPktIs(slot, Ovel::globalPktManager().newPkt());
        VORN_ASSERT(savedBulkPkt( i ));
      }
      Ovel::Pkt & pkt = *bulkPkt_[i];
      pkt.sharedDataResetForReuse();  // a fresh buffer when a Pam still holds the frame read into it
      // A larger buffer when maxRxPktData grew since the last read; else the reset left it ready.
      if (!pkt.hasHeadData() || pkt.maxData() < size) pkt.newSharedHeadData(size);
      uint32_t const maxData = pkt.maxData();
      VORN_ASSERT(maxData >= maxRxPktData());
    }
    if (headers) {
      bulkBatch_.slotIs(i, bulkPkt_[i]->data(), size);
    }
    if (i < packets) savedPacketRxIs(slot, false);
  }
  if (headers) {
    bulkHeadersReady_ = true;
  } else if (packets) {
    bulkHeadersReady_ = false;
  }
  bulkPreparedQuota_ = quota;
  bulkPreparedSize_ = size;
  bulkSlotsDirty_ = 0;
}

uint32_t EthDevPamBundle::doRxReadOnce() {
  if (rxRingMapped(currActiveSd_)) {
    EDPM_TRACE(9, "Ring get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
    return doGetRxPktIntRing();
  }
  EDPM_TRACE(9, "Bulk get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
  return doGetRxPktIntBulk();
}

uint32_t EthDevPamBundle::doGetRxPktIntBulk() {
  VORN_ASSERT(bulkReadQuota() <= 128);
  VORN_ASSERT(pktReuse());
  int const sock = currActiveSd_;
  EDPM_TRACE(9, "Bulk get pkts on EdpBundle's FileDescriptor: " << sock);
  doBulkSlotsPrepare(true);
  int const received = Platform::calls().recvmmsg(sock, bulkBatch_.headers(), bulkReadQuota_, MSG_DONTWAIT, nullptr);
  int const error = errno;
  EDPM_TRACE(9, "recvmmsg:  " << received << " pkts received ");
  if (received < 0) {
    EDPM_TRACE(9, "recvmmsg errno: " << error);
    if (error == EAGAIN) return 0;
    EDPM_TRACE(0, "recvmmsg failed for common sd " << sock << " with errno " << error << " (" << std::strerror(error)
                                                   << ")");
    rxErrorsInc(1);
    return 0;
  }
  uint32_t const count = static_cast<uint32_t>(received);
  bulkSlotsDirty_ = count;
  for (uint32_t i = 0; i < count; ++i) {
    sockaddr_ll const & from = bulkBatch_.from(i);
    Ovel::Pkt & pkt = *bulkPkt_[i];
    pkt.ifIndexIs(static_cast<uint32_t>(from.sll_ifindex));
    pkt.pktTypeIs(from.sll_pkttype);
    if (from.sll_pkttype == PACKET_OUTGOING) continue;
    vlanTagFromAuxData(pkt, bulkBatch_.header(i));
    pkt.dataLenIs(bulkBatch_.length(i));
  }
  doBulkSlotsDeliver(sock, count);
  return count;
}

void EthDevPamBundle::doBulkSlotsDeliver(int sock, uint32_t count) {
  uint64_t processed = 0;
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t const slot = static_cast<uint16_t>(i);
    Vorn::Ptr<Ovel::Pkt> const & pkt = bulkPkt_[i];
    if (pkt->pktType() == PACKET_OUTGOING) {
      EDPM_TRACE(3, "Ignoring outgoing packet received on single socket " << pkt->ifIndex());
      continue;
    }
    savedPacketRxIs(slot, true);
    if (doDeliver(pkt, pkt->ifIndex(), true) == Delivery::delivered) {
      ++processed;
    } else {
      savedPacketRxIs(slot, false);  // its buffer is free for the next read
    }
  }
  if (processed > maxProcessedPkts_) maxProcessedPktsIs(processed);
  EDPM_TRACE(9, "Processed " << processed << " packets from commmon socket " << sock);
  if (actPamCollection_ && !actPamCollection_->empty()) doPamNotifications();
}

void EthDevPamBundle::doPamNotifications() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doPamNotifications()");
  Vorn::Ptr<EthDevPamCollection> const active = actPamCollection_;  // a reader may disable the bundle
  if (!active) return;
  Vorn::Ptr<EthDevPamBundle> keep(references() ? this : nullptr);
  // Readers that took nothing; the vector's room is kept between calls (a reader calling back in
  // starts with an empty one).
  std::vector<std::pair<Ovel::IntfId, Vorn::Ptr<Ovel::EthDevPamInBundle>>> saved = std::move(savedPams_);
  while (!active->empty()) {
    for (auto const & entry : active->intfPamIter()) {
      Ovel::IntfId const intf = entry.key;  // the entry goes away below
      Vorn::Ptr<Ovel::EthDevPamInBundle> const pam = Vorn::ptr_cast<Ovel::EthDevPamInBundle>(entry.value);
      VORN_ASSERT(pam);
      EDPM_TRACE(9, "invoking reader on pam " << pam->name() << " interface " << intf << "Pam :" << pam->name()
                                              << " Pkt Count: " << pam->curRxPkts());
      uint8_t const before = pam->curRxPkts();
      pam->readerListenerIs(nullptr);  // what it takes while called is no news
      pam->readableCountInc(1);
      uint8_t const after = pam->curRxPkts();
      bool const noProgress = before != 0 && after == before;
      if (after != 0 && !noProgress) continue;  // it took some: call it again in the next pass
      active->intfPamDel(intf);
      if (noProgress) {
        EDPM_TRACE(1, "Intf " << intf << "/Pam " << pam->name() << " is not consuming packet" << " Pkt count: "
                              << before);
        saved.emplace_back(intf, pam);
      }
    }
  }
  if (saved.empty()) {
    savedPams_ = std::move(saved);
    return;
  }
  EDPM_TRACE(5, "Saving " << saved.size() << "  pams for delayed processing.");
  for (auto const & [intf, pam] : saved) {
    active->intfPamIs(intf, pam);
    pam->readerListenerIs(this);  // served again when its reader takes a frame, or with its next frame
  }
  EDPM_TRACE(5, "Saved " << saved.size() << "  pams for delayed  processing.");
  for (auto const & [intf, pam] : saved) {
    EDPM_TRACE(5, "Saved Intf/Pams for notification in next iteration" << " Intf: " << intf << " Pam: " << pam->name()
                                                                       << " packet count " << pam->curRxPkts());
  }
  saved.clear();
  savedPams_ = std::move(saved);
}

void EthDevPamBundle::onReaderResumed(Ovel::EthDevPamInBundle & /*pam*/) {
  if (!enabled_) return;
  EDPM_TRACE(5, "Rescheduling activity for delayed processing");
  schedPktDeliveryInc(1);
}

void EthDevPamBundle::doReaderListenersClear() {
  if (!actPamCollection_) return;
  for (auto const & entry : actPamCollection_->intfPamIter()) {
    if (auto * pam = dynamic_cast<Ovel::EthDevPamInBundle *>(entry.value.ptr())) pam->readerListenerIs(nullptr);
  }
}

// ---- receive moderation ------------------------------------------------------------------------------

class EthDevPamBundle::VornModerationClock : public Vorn::Reactor<EthDevPamBundle, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&EthDevPamBundle::handleModerationTimer); }
};

// Whole microseconds from `from` to `to`, rounded: the clock's seconds are doubles.
uint64_t EthDevPamBundle::microsecondsBetween(double from, double to) {
  return to > from ? static_cast<uint64_t>(std::llround((to - from) * 1e6)) : 0;
}

bool EthDevPamBundle::rxModerated(int sock) const {
  Socket const * s = const_cast<EthDevPamBundle *>(this)->socketOf(sock);
  return s && s->moderated;
}

// The frames readiness brought within one interval; a batch of them in two intervals running means
// the link is busy enough for timed reads. Counted over the interval, not per wake-up: a reader that
// wakes fast finds one or two frames each time however busy the link is. Two intervals, not one:
// the kernel hands a sender's frames over in bursts, and a burst alone is read by one wake-up.
void EthDevPamBundle::doModerationCount(Socket & s, uint32_t frames) {
  double const now = Vorn::System::currentTime();
  uint64_t const since = microsecondsBetween(s.windowStart, now);
  if (since >= rxModerationIntervalUs_) {
    s.busyBefore = s.windowFrames >= rxModerationBatch_ && since < 2 * uint64_t(rxModerationIntervalUs_);
    s.windowStart = now;
    s.windowFrames = 0;
  }
  s.windowFrames += frames;
  if (s.busyBefore && s.windowFrames >= rxModerationBatch_) doModerationEnter(s);
}

void EthDevPamBundle::doModerationEnter(Socket & s) {
  if (s.moderated || !s.watch) return;
  EDPM_TRACE(5, "EthDevPamBundle: timed reads on sd " << s.sd);
  s.moderated = true;
  s.watch->readableWantedIs(false);
  rxModerationEntries_ += 1;
  notify(&NotifieeConst::onRxModerationEntries);
  if (!moderationClock_) moderationClock_ = Vorn::reactorNew<VornModerationClock>(this, Vorn::activityManager().clock());
  if (moderationClock_->timeMin() == Vorn::Clock::never) {
    moderationLastPass_ = Vorn::System::currentTime();
    moderationClock_->timeMinIs(moderationLastPass_ + rxModerationIntervalUs_ * 1e-6);
  }
}

void EthDevPamBundle::doModerationLeave(Socket & s) {
  EDPM_TRACE(5, "EthDevPamBundle: readiness reads on sd " << s.sd);
  s.moderated = false;
  s.windowStart = Vorn::System::currentTime();
  s.windowFrames = 0;
  s.busyBefore = false;
  if (s.watch) s.watch->readableWantedIs(true);  // what came meanwhile is reported on the next pass
}

void EthDevPamBundle::handleModerationTimer() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::handleModerationTimer()");
  Vorn::Ptr<EthDevPamBundle> keep(references() ? this : nullptr);  // a reader may drop the last reference
  // The loop wakes later than asked (timer slack, other work): what a pass finds is weighed by the
  // time it covers, so a late firing does not pass for a busy link.
  double const start = Vorn::System::currentTime();
  uint64_t const covered = std::max<uint64_t>(microsecondsBetween(moderationLastPass_, start), rxModerationIntervalUs_);
  moderationLastPass_ = start;
  bool again = false, full = false;
  for (Slot slot : {common, tap}) {
    if (!enabled_ || !sockets_[slot].moderated) continue;
    int const sock = sockets_[slot].sd;
    uint32_t total = 0, count = 0;
    currActiveSdIs(sock);
    // Until a read comes back short: the ring or the socket is empty then.
    do {
      count = doRxReadOnce();
      total += count;
    } while (count == bulkReadQuota_ && total < moderationPassFrames && enabled_ && sockets_[slot].sd == sock);
    currActiveSdIs(-1);
    Socket & s = sockets_[slot];
    if (s.sd != sock || !s.moderated) continue;  // a reader closed it, or moderation was turned off
    if (uint64_t(total) * rxModerationIntervalUs_ < uint64_t(moderationLeaveFrames()) * covered) {
      doModerationLeave(s);
    } else {
      again = true;
      full |= total >= moderationPassFrames;
    }
  }
  if (!again) return;
  // A firing that stopped at the cap goes on at the next pass, after the loop's other work.
  double const now = Vorn::System::currentTime();
  moderationClock_->timeMinIs(full ? now : now + rxModerationIntervalUs_ * 1e-6);
}

void EthDevPamBundle::handleScheduledPktDelivery() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::handleScheduledPktDelivery()");
  doPamNotifications();
}

}  // namespace Interface
