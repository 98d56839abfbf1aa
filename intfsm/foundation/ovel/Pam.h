// A packet-access endpoint (Pam): where received frames wait for a reader, and through which a writer
// sends frames out.
//
// Readers watch `readableCount`. Whoever receives a frame for the Pam stores it (`rxPktIs`) and then
// raises `readableCountInc(1)`; a reader's onReadableCount() takes it with `rxPkt()`:
//
//   struct Reader : Ovel::Pam::NotifieeConst {
//     void onReadableCount() override {
//       if (Vorn::Ptr<Ovel::Pkt> pkt = notifier()->rxPkt()) handle(pkt);   // one frame per call
//     }
//   };
//
// Receive queue: a plain Pam holds one frame. A frame stored while the previous one has not been taken
// replaces it (the newest frame wins), and the replaced one is counted in `queueDropCount`.
// EthDevPamInBundle holds a bounded queue instead. `rxPkt()` takes the oldest waiting frame and
// returns null when none waits; `rxPkts()` tells how many wait.
//
// A stored frame is the Pam's own packet sharing the receiver's buffer (Pkt::newSharedCopy), so the
// receiver may reset and refill its packet at once without touching the frame that waits here. If the
// packet manager has no packet left for that copy, the frame is dropped and counted in `rxErrors`.
//
// `doGetRxPkt()` is what a socket's readable event calls: the endpoints that own a socket (a bundle,
// an EthDevPam with its own socket) override it to read. The plain Pam has nothing to read.
//
// Saved packets: `savedPacket` (slot -> packet) holds preallocated packets lent to a receive path so
// that it need not allocate per frame, and `savedPacketRx` (slot -> bool) marks the slots that hold a
// frame from the last read. Both are ordinary collection attributes: a value is stored as given (false
// is stored, distinct from absent, so flipping a flag per read allocates nothing); a null packet
// deletes the slot. Each change notifies onSavedPacket(slot) / onSavedPacketRx(slot). The flags are
// kept in an array indexed by slot, as a receive path flips two per frame: it grows to the highest
// slot flagged so far and no further.
//
// Transmit: `txPkt(pkt)` sends one frame through `doSendPkt`, which an endpoint with a socket
// implements. It returns true when the kernel took the frame. A refused frame is counted in
// `txErrors`, its errno kept in `lastTxErrno()`, traced at level 1, and txPkt returns false; it is never
// raised, because a full socket buffer or a device going down is ordinary while an agent runs. A
// plain Pam has no way out and refuses every frame with EOPNOTSUPP. A null packet, or a frame shorter
// than an Ethernet header (14 bytes), is a caller's error and raises Vorn::RangeException.
//
// Counters (`readableCount`, `writableCount`, `rxErrors`, `txErrors`, `queueDropCount`) are 32-bit,
// wrap around, and notify onX() on every increment by a non-zero amount.
#pragma once

#include <cstdint>
#include <vector>

#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Ovel {

class Pam : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Pam> {
   public:
    virtual void onReadableCount() {}
    virtual void onWritableCount() {}
    virtual void onRxErrors() {}
    virtual void onTxErrors() {}
    virtual void onQueueDropCount() {}
    virtual void onSavedPacket(uint16_t /*slot*/) {}
    virtual void onSavedPacketvornImmediate() {}
    virtual void onSavedPacketRx(uint16_t /*slot*/) {}
    virtual void onSavedPacketRxvornImmediate() {}
  };

  static constexpr uint32_t ethHeaderBytes = 14;

  explicit Pam(Vorn::Name const & name);

  uint32_t readableCount() const noexcept { return readableCount_; }
  void readableCountInc(uint32_t n) { inc(readableCount_, n, &NotifieeConst::onReadableCount); }
  uint32_t writableCount() const noexcept { return writableCount_; }
  void writableCountInc(uint32_t n) { inc(writableCount_, n, &NotifieeConst::onWritableCount); }
  uint32_t rxErrors() const noexcept { return rxErrors_; }
  void rxErrorsInc(uint32_t n) { inc(rxErrors_, n, &NotifieeConst::onRxErrors); }
  uint32_t txErrors() const noexcept { return txErrors_; }
  void txErrorsInc(uint32_t n) { inc(txErrors_, n, &NotifieeConst::onTxErrors); }
  uint32_t queueDropCount() const noexcept { return queueDropCount_; }
  void queueDropCountInc(uint32_t n) { inc(queueDropCount_, n, &NotifieeConst::onQueueDropCount); }

  // The oldest frame waiting for the reader, taken off the Pam; null when none waits.
  virtual Vorn::Ptr<Pkt> rxPkt();
  // Stores a received frame for the reader (see the queue rules above); false when it was not kept.
  // Does not notify: the receiver raises readableCountInc once it has stored what it read.
  virtual bool rxPktIs(Vorn::Ptr<Pkt> const & pkt);
  // Frames waiting.
  virtual uint32_t rxPkts() const { return rxPkt_ ? 1 : 0; }

  // The socket of this endpoint is readable: read what is there.
  virtual void doGetRxPkt() {}

  Vorn::Ptr<Pkt> savedPacket(uint16_t slot) const { return savedPacket_.get(slot); }
  void savedPacketIs(uint16_t slot, Vorn::Ptr<Pkt> const & pkt);
  void savedPacketDel(uint16_t slot);
  void savedPacketDelAll();
  uint32_t savedPackets() const noexcept { return savedPacket_.size(); }
  Vorn::Collection<uint16_t, Vorn::Ptr<Pkt>> const & savedPacketIter() const noexcept { return savedPacket_; }

  bool savedPacketRx(uint16_t slot) const { return slot < savedPacketRx_.size() && savedPacketRx_[slot] == rxFlagSet; }
  void savedPacketRxIs(uint16_t slot, bool received);
  void savedPacketRxDel(uint16_t slot);
  void savedPacketRxDelAll();
  uint32_t savedPacketRxs() const noexcept { return savedPacketRxs_; }

  // Sends one frame; true when the kernel took it (see Transmit above).
  bool txPkt(Vorn::Ptr<Pkt> const & pkt);
  // The errno of the last refused frame; 0 before any.
  int lastTxErrno() const noexcept { return lastTxErrno_; }

 protected:
  ~Pam() override;

  // Sends `pkt` (at least an Ethernet header long); 0 when the kernel took it, else the errno.
  virtual int doSendPkt(Pkt const & pkt);

  // Drops the frames waiting for the reader, uncounted; how many there were.
  virtual uint32_t rxPktsDelAll();

  // The Pam's own copy of a received frame, sharing its buffer; null (counted in rxErrors) when the
  // packet manager has none left.
  Vorn::Ptr<Pkt> rxCopyOf(Pkt const & pkt);

  void vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const override;

 private:
  void inc(uint32_t & counter, uint32_t n, void (NotifieeConst::*callback)()) {
    if (!n) return;
    counter += n;
    notify(callback);
  }

  uint32_t readableCount_ = 0;
  uint32_t writableCount_ = 0;
  uint32_t rxErrors_ = 0;
  uint32_t txErrors_ = 0;
  uint32_t queueDropCount_ = 0;
  int lastTxErrno_ = 0;
  Vorn::Ptr<Pkt> rxPkt_;
  Vorn::Collection<uint16_t, Vorn::Ptr<Pkt>> savedPacket_;
  // By slot: absent, false or true.
  enum RxFlag : int8_t { rxFlagAbsent = -1, rxFlagClear = 0, rxFlagSet = 1 };
  std::vector<RxFlag> savedPacketRx_;
  uint32_t savedPacketRxs_ = 0;
};

}  // namespace Ovel
