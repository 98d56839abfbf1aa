// One Ethernet frame as the packet layer passes it around: a buffer of bytes (its head data, which
// may be shared with other packets), the length of the frame in it, a VLAN tag kept outside the bytes
// when the kernel reported it separately, and where and when the frame came from (ifindex, packet
// type, the kernel's receive time).
//
// Packets come from a PktManager and return to it with their last reference. A receive path that
// reuses one packet for every read does so in two steps:
//
//   pkt->sharedDataResetForReuse();            // fresh buffer if the old one is still held elsewhere
//   pkt->newSharedHeadData(maxRxPktData);      // at least that much room; no allocation when it fits
//   ssize_t n = recv(sd, pkt->data(), pkt->maxData(), MSG_DONTWAIT);
//   pkt->dataLenIs(n);
//   pam->writeNewRxPkt(pkt);                   // the Pam queues a packet that shares this buffer
//
// Sharing rule: a packet handed to a Pam is never written again by a later read. The Pam keeps a
// packet of its own (newSharedCopy) that shares the buffer; the next reset of the reader's packet sees
// the buffer still held and takes a fresh one, leaving the queued bytes alone. When the reader of the
// Pam has already let go of the frame, the buffer is the reader's alone again and is reused in place,
// which is the steady state: nothing is allocated per frame.
//
// Writing through data() changes the bytes for every packet that shares the buffer; a writer that
// wants its own bytes resets or takes new head data first.
#pragma once

#include <cstdint>

#include "intfsm/foundation/ovel/PktHeadData.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Ovel {

class PktManager;

class Pkt : public Vorn::PtrInterface {
 public:
  static constexpr uint16_t defaultVlanTpid = 0x8100;

  PktManager & manager() const noexcept { return *manager_; }

  // Head data of at least `size` bytes. Keeps the current buffer when it is this packet's alone and
  // large enough (nothing allocated); otherwise takes another one (from the manager's pool when it can).
  // The data length becomes 0. A size above PktManager::maxHeadData raises Vorn::RangeException
  // "Pkt::newSharedHeadData size > 262144 not allowed" and changes nothing.
  void newSharedHeadData(uint32_t size);

  // Makes the packet ready for the next frame: data length 0, no VLAN tag, no ifindex, packet type 0,
  // receive time 0.
  // The buffer is kept and reused in place when no other packet shares it; when another one does (a
  // queued copy), this packet gets a fresh buffer of the same size and the other keeps the bytes.
  void sharedDataResetForReuse();

  bool hasHeadData() const noexcept { return static_cast<bool>(headData_); }
  // Another packet shares this one's buffer.
  bool headDataShared() const noexcept { return headData_ && headData_->shared(); }

  // The frame's bytes; null while the packet has no head data.
  uint8_t * data() noexcept { return headData_ ? headData_->bytes() : nullptr; }
  uint8_t const * data() const noexcept { return headData_ ? headData_->bytes() : nullptr; }

  // How many bytes the packet can hold: the capacity of its buffer, or, before it has one, the most
  // that newSharedHeadData grants (PktManager::maxHeadData).
  uint32_t maxData() const noexcept;

  // The length of the frame in the buffer. At most the buffer's capacity: more raises
  // Vorn::RangeException "Pkt::dataLen > maxData not allowed"; without head data only 0 is accepted
  // ("Pkt::dataLen without head data not allowed"). The length is unchanged on error.
  uint32_t dataLen() const noexcept { return dataLen_; }
  void dataLenIs(uint32_t length);

  // Copies `length` bytes in, taking head data of that size first (newSharedHeadData rules).
  void dataIs(void const * bytes, uint32_t length);

  // A second packet of the same manager that shares this one's buffer and copies its length, VLAN tag,
  // ifindex, packet type and receive time; null when the manager's cap is reached.
  Vorn::Ptr<Pkt> newSharedCopy() const;

  // The 802.1Q tag that the kernel took out of the frame (PACKET_AUXDATA): tag control information and
  // tag protocol identifier, kept beside the bytes. A transmitter puts it back in.
  void newSeparateVlanTag(uint16_t tci, uint16_t tpid);
  void vlanTagDel() noexcept;
  bool hasVlanTag() const noexcept { return hasVlanTag_; }
  uint16_t vlanTci() const noexcept { return vlanTci_; }
  uint16_t vlanTpid() const noexcept { return vlanTpid_; }
  uint16_t vlanId() const noexcept { return vlanTci_ & 0x0fff; }

  // Receive metadata, from the sockaddr_ll of the read: the interface the frame arrived on and its
  // packet type (PACKET_HOST, PACKET_BROADCAST, PACKET_MULTICAST, PACKET_OTHERHOST, PACKET_OUTGOING).
  uint32_t ifIndex() const noexcept { return ifIndex_; }
  void ifIndexIs(uint32_t ifIndex) noexcept { ifIndex_ = ifIndex; }
  uint8_t pktType() const noexcept { return pktType_; }
  void pktTypeIs(uint8_t type) noexcept { pktType_ = type; }
  // When the kernel received the frame, in nanoseconds since the epoch (CLOCK_REALTIME): from
  // SO_TIMESTAMPNS on the socket paths, from the slot header on the ring path; 0 when unknown.
  uint64_t rxTime() const noexcept { return rxTime_; }
  void rxTimeIs(uint64_t nanoseconds) noexcept { rxTime_ = nanoseconds; }

 private:
  friend class PktManager;
  explicit Pkt(PktManager * manager) : manager_(manager) {}
  ~Pkt() override = default;
  void onZeroReferences() const override;
  void metadataClear() noexcept;

  PktManager * manager_;
  Vorn::Ptr<PktHeadData> headData_;
  uint64_t rxTime_ = 0;
  uint32_t dataLen_ = 0;
  uint32_t ifIndex_ = 0;
  uint16_t vlanTci_ = 0;
  uint16_t vlanTpid_ = 0;
  uint8_t pktType_ = 0;
  bool hasVlanTag_ = false;
  Pkt * nextFree_ = nullptr;  // the manager's pool
};

}  // namespace Ovel
