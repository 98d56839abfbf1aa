#include "intfsm/foundation/ovel/EthDevPamInBundle.h"

#include "intfsm/foundation/ovel/internal/Trace.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

EthDevPamInBundle::EthDevPamInBundle(Vorn::String const & name) : EthDevPam(Vorn::Name(name)) {}

EthDevPamInBundle::~EthDevPamInBundle() = default;

void EthDevPamInBundle::oldestDel() {
  ring_[head_] = nullptr;
  head_ = static_cast<uint8_t>((head_ + 1u) % ringSlots);
  --count_;
}

bool EthDevPamInBundle::writeNewRxPkt(Vorn::Ptr<Pkt> const & pkt) {
  if (!pkt) throw Vorn::RangeException("EthDevPamInBundle::writeNewRxPkt of a null packet not allowed");
  if (count_ >= maxRxPkts_) {
    queueDropCountInc(1);
    if (!headDropPolicy_) {
      OVEL_TRACE(5, "EthDevPamInBundle " << name() << ": queue full (" << count_ << "), new frame dropped");
      return false;
    }
    OVEL_TRACE(5, "EthDevPamInBundle " << name() << ": queue full (" << count_ << "), oldest frame dropped");
    oldestDel();  // first: its packet goes back to the pool the copy below is taken from
  }
  Vorn::Ptr<Pkt> copy = rxCopyOf(*pkt);
  if (!copy) return false;
  if (ring_.empty()) ring_.resize(ringSlots);
  ring_[(head_ + count_) % ringSlots] = std::move(copy);
  ++count_;
  return true;
}

Vorn::Ptr<Pkt> EthDevPamInBundle::rxPkt() {
  if (!count_) return nullptr;
  Vorn::Ptr<Pkt> pkt = std::move(ring_[head_]);
  head_ = static_cast<uint8_t>((head_ + 1u) % ringSlots);
  --count_;
  if (ReaderListener * const listener = readerListener_) {
    readerListener_ = nullptr;
    listener->onReaderResumed(*this);
  }
  return pkt;
}

uint32_t EthDevPamInBundle::rxPktsDelAll() {
  uint32_t const dropped = count_;
  while (count_) oldestDel();
  head_ = 0;
  return dropped;
}

void EthDevPamInBundle::maxRxPktsIs(uint8_t bound) {
  if (bound < 1) throw Vorn::RangeException("EthDevPamInBundle::maxRxPkts < 1 not allowed");
  if (bound == maxRxPkts_) return;
  uint32_t dropped = 0;
  for (; count_ > bound; ++dropped) oldestDel();
  maxRxPkts_ = bound;
  notify(&NotifieeConst::onMaxRxPkts);
  queueDropCountInc(dropped);
}

}  // namespace Ovel
