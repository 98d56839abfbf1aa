// The packet allocator: a pool of packets (Pkt) and of their buffers (PktHeadData), with a cap on
// the packets alive at once.
//
//   Ovel::PktManager & packets = Ovel::globalPktManager();
//   Vorn::Ptr<Ovel::Pkt> pkt = packets.newPkt();       // null when maxPkts() packets are alive
//   if (pkt) pkt->newSharedHeadData(1518);
//
// A packet whose last reference goes away returns to the pool, and its buffer to the buffer pool of
// its size, so a receive path that keeps reading at a steady rate stops allocating once the pools
// hold what it needs. The cap bounds memory as well: a buffer lives only while some packet holds it,
// so at most maxPkts() buffers are alive.
//
// Buffers come in power-of-two sizes from 2048 (minHeadData) to 262144 (maxHeadData) bytes; asking
// for 1518 bytes gives a 2048-byte buffer, for 9216 a 16384-byte one.
//
// The process's manager (globalPktManager) allows 65536 live packets (defaultMaxPkts) and lives as
// long as the process. Other managers (pktManagerNew, for tests and benchmarks) live until their last
// packet is gone. A manager and its packets belong to one thread: the event loop's.
#pragma once

#include <array>
#include <cstdint>

#include "intfsm/foundation/vorn/Ptr.h"

namespace Ovel {

class Pkt;
class PktHeadData;
class PktManager;

PktManager & globalPktManager();

class PktManager : public Vorn::PtrInterface {
 public:
  static constexpr uint32_t defaultMaxPkts = 65536;
  static constexpr uint32_t minHeadData = 2048;
  static constexpr uint32_t maxHeadData = 262144;
  static constexpr unsigned sizeClasses = 8;  // buffer sizes 2^11 .. 2^18

  static Vorn::Ptr<PktManager> pktManagerNew(uint32_t maxPkts = defaultMaxPkts);

  // A packet without head data (see Pkt), or null when maxPkts() packets are alive; a null result is
  // counted in newPktFailures().
  Vorn::Ptr<Pkt> newPkt();

  // The cap on live packets, at least 1 (less raises Vorn::RangeException "PktManager::maxPkts < 1 not
  // allowed"). Lowering it below livePkts() kills nothing: newPkt fails until enough are released.
  uint32_t maxPkts() const noexcept { return maxPkts_; }
  void maxPktsIs(uint32_t n);

  uint32_t livePkts() const noexcept { return livePkts_; }
  // Packets created on the heap so far; the pool serves the rest.
  uint64_t pktsAllocated() const noexcept { return pktsAllocated_; }
  uint64_t newPktFailures() const noexcept { return newPktFailures_; }
  uint32_t pooledPkts() const noexcept { return pooledPkts_; }

  uint32_t liveHeadData() const noexcept { return liveHeadData_; }
  uint64_t headDataAllocated() const noexcept { return headDataAllocated_; }
  uint32_t pooledHeadData() const noexcept { return pooledHeadData_; }

  // Frees every pooled packet and buffer (after a burst, to give the memory back).
  void pooledDelAll();

  // The buffer size that a request for `size` bytes gets (size at most maxHeadData).
  static uint32_t headDataCapacityFor(uint32_t size) noexcept;

 private:
  friend class Pkt;
  friend class PktHeadData;
  friend PktManager & globalPktManager();

  explicit PktManager(uint32_t maxPkts);
  ~PktManager() override;

  // A buffer of at least `size` bytes (at most maxHeadData), from the pool when one is there.
  Vorn::Ptr<PktHeadData> newHeadData(uint32_t size);
  void headDataReturn(PktHeadData * data);
  void pktReturn(Pkt * pkt);
  static unsigned sizeClassOf(uint32_t capacity) noexcept;

  uint32_t maxPkts_;
  uint32_t livePkts_ = 0;
  uint64_t pktsAllocated_ = 0;
  uint64_t newPktFailures_ = 0;
  uint32_t pooledPkts_ = 0;
  Pkt * freePkts_ = nullptr;

  uint32_t liveHeadData_ = 0;
  uint64_t headDataAllocated_ = 0;
  uint32_t pooledHeadData_ = 0;
  std::array<PktHeadData *, sizeClasses> freeHeadData_{};
};

// The process's packet manager, created on first use and never destroyed.
PktManager & globalPktManager();

}  // namespace Ovel
