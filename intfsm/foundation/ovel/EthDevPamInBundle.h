// The per-interface endpoint of a bundle: frames that the bundle reads from its shared socket for this
// interface wait here, in arrival order, until the reader takes them.
//
//   // receive path (the bundle), per frame read for this interface:
//   pam->writeNewRxPkt(pkt);                 // queued as the Pam's own packet sharing pkt's buffer
//   // after the read, per Pam that got frames:
//   pam->readableCountInc(1);                // the reader takes one or more with rxPkt()
//   if (pam->curRxPkts()) ...                // the reader left some: serve it again later
//
// Queue bound: at most maxRxPkts() frames wait, 255 by default, which is also the most curRxPkts()
// (8 bits) can count, so the count is always exact. maxRxPktsIs(n) takes 1..255 (0 raises
// Vorn::RangeException "EthDevPamInBundle::maxRxPkts < 1 not allowed"); lowering it below the number
// waiting drops the oldest frames down to the new bound.
//
// Full queue: with headDropPolicy the OLDEST waiting frame is dropped to make room for the new one
// (a slow reader sees the latest traffic); without it (the default) the NEW frame is dropped and the
// waiting ones stay (a slow reader sees an unbroken run from the start). Either way the dropped frame
// is counted in queueDropCount, and writeNewRxPkt returns whether the new frame was queued.
// Frames dropped by a bound lowered or by disabling count there too.
//
// rxPktIs (the single-frame receive path) queues like writeNewRxPkt, and rxPkt() takes the oldest.
//
// A reader that left its frames waiting is not called again and again: its receiver registers a
// ReaderListener (readerListenerIs), and the first frame the reader then takes tells it once
// (onReaderResumed, after the frame is off the queue), so the receiver serves the rest later.
// enableBulkPamRead is the manager's choice of bulk reading, passed to each Pam; a Pam with its own
// socket (perIntfSocket) reads that socket in batches (recvmmsg) when it is on together with pktReuse.
//
// Transmit goes through `sd`, which for a Pam in a bundle is the bundle's shared socket, addressed to
// this Pam's ifIndex (see EthDevPam).
#pragma once

#include <cstdint>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPam.h"

namespace Ovel {

class EthDevPamInBundle : public EthDevPam {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamInBundle, EthDevPam::NotifieeConst> {
   public:
    virtual void onHeadDropPolicy() {}
    virtual void onEnableBulkPamRead() {}
    virtual void onMaxRxPkts() {}
  };

  static constexpr uint8_t defaultMaxRxPkts = 255;

  // Told once, when the reader takes a frame, that a reader which had stopped reads again.
  class ReaderListener {
   public:
    virtual void onReaderResumed(EthDevPamInBundle & pam) = 0;

   protected:
    ~ReaderListener() = default;
  };

  explicit EthDevPamInBundle(Vorn::String const & name);

  // Queues a received frame (see above); a null packet raises Vorn::RangeException
  // "EthDevPamInBundle::writeNewRxPkt of a null packet not allowed".
  bool writeNewRxPkt(Vorn::Ptr<Pkt> const & pkt);
  Vorn::Ptr<Pkt> rxPkt() override;
  bool rxPktIs(Vorn::Ptr<Pkt> const & pkt) override { return writeNewRxPkt(pkt); }
  uint32_t rxPkts() const override { return count_; }
  // Frames waiting for the reader.
  uint8_t curRxPkts() const noexcept { return count_; }

  bool headDropPolicy() const noexcept { return headDropPolicy_; }
  void headDropPolicyIs(bool on) { set(headDropPolicy_, on, &NotifieeConst::onHeadDropPolicy); }
  bool enableBulkPamRead() const noexcept { return enableBulkPamRead_; }
  void enableBulkPamReadIs(bool on) { set(enableBulkPamRead_, on, &NotifieeConst::onEnableBulkPamRead); }
  uint8_t maxRxPkts() const noexcept { return maxRxPkts_; }
  void maxRxPktsIs(uint8_t bound);
  // The listener to tell on the next frame taken (then forgotten); null: none. Not owned: its owner
  // clears it before it goes.
  ReaderListener * readerListener() const noexcept { return readerListener_; }
  void readerListenerIs(ReaderListener * listener) noexcept { readerListener_ = listener; }

 protected:
  ~EthDevPamInBundle() override;
  bool enableBulkReadOnOwnSocket() const override { return enableBulkPamRead_ && pktReuse(); }
  uint32_t rxPktsDelAll() override;

 private:
  static constexpr unsigned ringSlots = 255;
  void oldestDel();

  bool headDropPolicy_ = false;
  bool enableBulkPamRead_ = false;
  uint8_t maxRxPkts_ = defaultMaxRxPkts;
  // A ring of ringSlots packets, made when the first frame arrives; head_ is the oldest.
  std::vector<Vorn::Ptr<Pkt>> ring_;
  uint8_t head_ = 0;
  uint8_t count_ = 0;
  ReaderListener * readerListener_ = nullptr;
};

}  // namespace Ovel
