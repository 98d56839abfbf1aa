#include "intfsm/foundation/ovel/Pam.h"

#include <cerrno>
#include <cstring>

#include "intfsm/foundation/ovel/internal/Trace.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

Pam::Pam(Vorn::Name const & name) : Entity(name) {}

Pam::~Pam() = default;

Vorn::Ptr<Pkt> Pam::rxPkt() { return std::move(rxPkt_); }

bool Pam::rxPktIs(Vorn::Ptr<Pkt> const & pkt) {
  if (!pkt) throw Vorn::RangeException("Pam::rxPkt of a null packet not allowed");
  Vorn::Ptr<Pkt> copy = rxCopyOf(*pkt);
  if (!copy) return false;
  bool const replaced = static_cast<bool>(rxPkt_);
  rxPkt_ = std::move(copy);
  if (replaced) queueDropCountInc(1);
  return true;
}

uint32_t Pam::rxPktsDelAll() {
  if (!rxPkt_) return 0;
  rxPkt_ = nullptr;
  return 1;
}

Vorn::Ptr<Pkt> Pam::rxCopyOf(Pkt const & pkt) {
  Vorn::Ptr<Pkt> copy = pkt.newSharedCopy();
  if (!copy) {
    OVEL_TRACE(0, "Pam " << name() << ": no packet left to keep a received frame, dropped");
    rxErrorsInc(1);
  }
  return copy;
}

void Pam::savedPacketIs(uint16_t slot, Vorn::Ptr<Pkt> const & pkt) {
  if (!pkt) {
    savedPacketDel(slot);
    return;
  }
  if (savedPacket_.set(slot, pkt)) notify(&NotifieeConst::onSavedPacket, slot);
}

void Pam::savedPacketDel(uint16_t slot) {
  if (savedPacket_.del(slot)) notify(&NotifieeConst::onSavedPacket, slot);
}

void Pam::savedPacketDelAll() {
  while (uint16_t const * slot = savedPacket_.anyKey()) savedPacketDel(*slot);
}

void Pam::savedPacketRxIs(uint16_t slot, bool received) {
  if (slot >= savedPacketRx_.size()) savedPacketRx_.resize(size_t(slot) + 1, rxFlagAbsent);
  RxFlag & flag = savedPacketRx_[slot];
  RxFlag const value = received ? rxFlagSet : rxFlagClear;
  if (flag == value) return;
  if (flag == rxFlagAbsent) ++savedPacketRxs_;
  flag = value;
  notify(&NotifieeConst::onSavedPacketRx, slot);
}

void Pam::savedPacketRxDel(uint16_t slot) {
  if (slot >= savedPacketRx_.size() || savedPacketRx_[slot] == rxFlagAbsent) return;
  savedPacketRx_[slot] = rxFlagAbsent;
  --savedPacketRxs_;
  notify(&NotifieeConst::onSavedPacketRx, slot);
}

void Pam::savedPacketRxDelAll() {
  // Indexed: a handler may flag slots again (and grow the array).
  for (size_t slot = 0; slot < savedPacketRx_.size() && savedPacketRxs_; ++slot) {
    savedPacketRxDel(static_cast<uint16_t>(slot));
  }
}

void Pam::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onSavedPacketvornImmediate);
  notifyOne(notifiee, &NotifieeConst::onSavedPacketRxvornImmediate);
}

bool Pam::txPkt(Vorn::Ptr<Pkt> const & pkt) {
  if (!pkt) throw Vorn::RangeException("Pam::txPkt of a null packet not allowed");
  if (pkt->dataLen() < ethHeaderBytes) {
    throw Vorn::RangeException("Pam::txPkt of a frame shorter than 14 bytes not allowed");
  }
  int const error = doSendPkt(*pkt);
  if (!error) return true;
  lastTxErrno_ = error;
  OVEL_TRACE(1, "Pam " << name() << ": frame of " << pkt->dataLen() << " bytes refused, errno: " << error << " ("
                       << std::strerror(error) << ")");
  txErrorsInc(1);
  return false;
}

int Pam::doSendPkt(Pkt const &) { return EOPNOTSUPP; }

}  // namespace Ovel
