#include "intfsm/foundation/ovel/PktManager.h"

#include <bit>

#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/ovel/PktHeadData.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

static_assert(PktManager::minHeadData << (PktManager::sizeClasses - 1) == PktManager::maxHeadData);

Vorn::Ptr<PktManager> PktManager::pktManagerNew(uint32_t maxPkts) {
  if (maxPkts < 1) throw Vorn::RangeException("PktManager::maxPkts < 1 not allowed");
  return new PktManager(maxPkts);
}

PktManager::PktManager(uint32_t maxPkts) : maxPkts_(maxPkts) {}

PktManager::~PktManager() {
  VORN_ASSERT(livePkts_ == 0);
  pooledDelAll();
}

void PktManager::maxPktsIs(uint32_t n) {
  if (n < 1) throw Vorn::RangeException("PktManager::maxPkts < 1 not allowed");
  maxPkts_ = n;
}

Vorn::Ptr<Pkt> PktManager::newPkt() {
  if (livePkts_ >= maxPkts_) {
    ++newPktFailures_;
    return nullptr;
  }
  Pkt * pkt = freePkts_;
  if (pkt) {
    freePkts_ = pkt->nextFree_;
    pkt->nextFree_ = nullptr;
    --pooledPkts_;
  } else {
    pkt = new Pkt(this);
    ++pktsAllocated_;
  }
  ++livePkts_;
  newRef();  // a live packet keeps its manager
  return Vorn::Ptr<Pkt>(pkt);
}

void PktManager::pktReturn(Pkt * pkt) {
  pkt->headData_ = nullptr;  // the buffer goes to its own pool while this manager surely lives
  pkt->metadataClear();
  --livePkts_;
  if (pooledPkts_ < maxPkts_) {
    pkt->nextFree_ = freePkts_;
    freePkts_ = pkt;
    ++pooledPkts_;
  } else {
    delete pkt;
  }
  deleteRef();  // last: may destroy this manager
}

uint32_t PktManager::headDataCapacityFor(uint32_t size) noexcept {
  return size <= minHeadData ? minHeadData : std::bit_ceil(size);
}

unsigned PktManager::sizeClassOf(uint32_t capacity) noexcept {
  return static_cast<unsigned>(std::countr_zero(capacity) - std::countr_zero(minHeadData));
}

Vorn::Ptr<PktHeadData> PktManager::newHeadData(uint32_t size) {
  VORN_ASSERT(size <= maxHeadData);
  uint32_t const capacity = headDataCapacityFor(size);
  PktHeadData *& pool = freeHeadData_[sizeClassOf(capacity)];
  PktHeadData * data = pool;
  if (data) {
    pool = data->nextFree_;
    data->nextFree_ = nullptr;
    --pooledHeadData_;
  } else {
    data = new PktHeadData(this, capacity);
    ++headDataAllocated_;
  }
  ++liveHeadData_;
  return Vorn::Ptr<PktHeadData>(data);
}

void PktManager::headDataReturn(PktHeadData * data) {
  --liveHeadData_;
  if (pooledHeadData_ < maxPkts_) {
    PktHeadData *& pool = freeHeadData_[sizeClassOf(data->capacity())];
    data->nextFree_ = pool;
    pool = data;
    ++pooledHeadData_;
  } else {
    delete data;
  }
}

void PktManager::pooledDelAll() {
  while (Pkt * pkt = freePkts_) {
    freePkts_ = pkt->nextFree_;
    delete pkt;
  }
  pooledPkts_ = 0;
  for (PktHeadData *& pool : freeHeadData_) {
    while (PktHeadData * data = pool) {
      pool = data->nextFree_;
      delete data;
    }
  }
  pooledHeadData_ = 0;
}

PktManager & globalPktManager() {
  static PktManager * const manager = [] {
    auto * m = new PktManager(PktManager::defaultMaxPkts);
    m->newRef();  // never released: packets may be dropped during static destruction
    return m;
  }();
  return *manager;
}

}  // namespace Ovel
