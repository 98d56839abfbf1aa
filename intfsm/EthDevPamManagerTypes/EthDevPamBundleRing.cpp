// Ring mode: the TPACKET_V2 receive ring of a bundle socket, set up, read and released.
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "intfsm/EthDevPamManagerTypes/internal/BundleDetail.h"
#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {

// Where a TPACKET_V2 slot's address follows its header.
constexpr size_t ringAddressAt = TPACKET_ALIGN(sizeof(tpacket2_hdr));
// The kernel puts a frame's link header at TPACKET_ALIGN(TPACKET2_HDRLEN + 16) less the header's
// length: a slot this long past that point holds the whole frame.
constexpr uint32_t ringFrameAt = TPACKET_ALIGN(TPACKET2_HDRLEN + 16);

[[noreturn]] void ringFailed(std::string const & trace, int error) {
  EDPM_TRACE(0, trace << error);
  throw Vorn::ErrnoException(error, "");
}

}  // namespace

bool EthDevPamBundle::rxRingMapped(int sock) const {
  Socket const * s = const_cast<EthDevPamBundle *>(this)->socketOf(sock);
  return s && s->ring.base;
}

void EthDevPamBundle::doRxRingSetUp(int fd, RxRing & ring) {
  Platform::Calls & os = Platform::calls();
  tpacket_req request{};
  request.tp_block_size = rxRingBlockSize_;
  request.tp_block_nr = rxRingBlockCount_;
  request.tp_frame_size = rxRingFrameSize_ ? rxRingFrameSize_ : TPACKET_ALIGN(ringFrameAt + maxRxPktData());
  uint32_t const perBlock = request.tp_frame_size ? request.tp_block_size / request.tp_frame_size : 0;
  request.tp_frame_nr = perBlock * request.tp_block_nr;  // the kernel checks the geometry
  EDPM_TRACE(5, "EthDevPamBundle::rxRing blocks " << request.tp_block_nr << " x " << request.tp_block_size
                                                  << " frames " << request.tp_frame_nr << " x " << request.tp_frame_size);
  if (os.setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) < 0) {
    int const error = errno;
    // The settings by name: a geometry only the kernel can judge (a slot larger than a block, a ring
    // larger than it will lend) is refused here.
    std::string const trace = "EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize " +
                              std::to_string(rxRingBlockSize_) + ", rxRingBlockCount " + std::to_string(rxRingBlockCount_) +
                              ", rxRingFrameSize " + std::to_string(request.tp_frame_size) + "), errno: ";
    ringFailed(trace, error);
  }
  size_t const bytes = size_t(request.tp_block_size) * request.tp_block_nr;
  void * base = os.mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) ringFailed("EthDevPamBundle::enabled failed to map the ring, errno: ", errno);
  ring = RxRing{static_cast<unsigned char *>(base), bytes, request.tp_block_size, request.tp_block_nr,
                request.tp_frame_size, perBlock, 0, 0, 0};
}

void EthDevPamBundle::doRxRingRelease(RxRing & ring) {
  if (!ring.base) return;
  // Only bad arguments make munmap fail; the ring is forgotten all the same, and the refusal shown.
  if (Platform::calls().munmap(ring.base, ring.bytes) < 0) {
    EDPM_TRACE(0, "EthDevPamBundle::failed to unmap the ring, errno: " << errno);
  }
  ring = RxRing{};
}

uint32_t EthDevPamBundle::doRxRingTake(RxRing & ring) {
  uint32_t const quota = bulkReadQuota_;
  uint32_t const size = maxRxPktData();
  uint32_t taken = 0;
  while (taken < quota) {
    auto * slot = reinterpret_cast<tpacket2_hdr *>(ring.base + ring.offset);
    uint32_t const status = __atomic_load_n(&slot->tp_status, __ATOMIC_ACQUIRE);
    if (!(status & TP_STATUS_USER)) break;
    auto const & from = *reinterpret_cast<sockaddr_ll const *>(reinterpret_cast<unsigned char *>(slot) + ringAddressAt);
    Ovel::Pkt & pkt = *bulkPkt_[taken];
    pkt.ifIndexIs(static_cast<uint32_t>(from.sll_ifindex));
    pkt.pktTypeIs(from.sll_pkttype);
    if (from.sll_pkttype != PACKET_OUTGOING) {
      uint32_t const length = std::min(slot->tp_snaplen, size);
      std::memcpy(pkt.data(), reinterpret_cast<unsigned char *>(slot) + slot->tp_mac, length);
      pkt.dataLenIs(length);
      pkt.rxTimeIs(uint64_t(slot->tp_sec) * 1000000000u + slot->tp_nsec);
      if (separateDot1QHdr_ && (status & TP_STATUS_VLAN_VALID)) {
        pkt.newSeparateVlanTag(slot->tp_vlan_tci,
                               (status & TP_STATUS_VLAN_TPID_VALID) ? slot->tp_vlan_tpid : Ovel::Pkt::defaultVlanTpid);
      }
    }
    __atomic_store_n(&slot->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);  // the kernel may refill it now
    ++taken;
    ring.offset += ring.frameSize;
    if (++ring.inBlock == ring.perBlock) {
      ring.inBlock = 0;
      if (++ring.block == ring.blocks) ring.block = 0;
      ring.offset = size_t(ring.block) * ring.blockSize;
    }
  }
  return taken;
}

uint32_t EthDevPamBundle::doGetRxPktIntRing() {
  VORN_ASSERT(bulkReadQuota() <= 128);
  int const sock = currActiveSd_;
  Socket * const s = socketOf(sock);
  doBulkSlotsPrepare(false);
  // Every frame is out of the ring before anything is delivered: a reader may close the socket.
  uint32_t const count = doRxRingTake(s->ring);
  EDPM_TRACE(9, "ring:  " << count << " pkts received ");
  bulkSlotsDirty_ = count;
  doBulkSlotsDeliver(sock, count);
  return count;
}

}  // namespace Interface
