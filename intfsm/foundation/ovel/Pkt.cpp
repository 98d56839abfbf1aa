#include "intfsm/foundation/ovel/Pkt.h"

#include <cstring>
#include <string>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

void Pkt::onZeroReferences() const { manager_->pktReturn(const_cast<Pkt *>(this)); }

void Pkt::metadataClear() noexcept {
  dataLen_ = 0;
  ifIndex_ = 0;
  pktType_ = 0;
  rxTime_ = 0;
  vlanTagDel();
}

void Pkt::newSharedHeadData(uint32_t size) {
  if (size > PktManager::maxHeadData) {
    throw Vorn::RangeException("Pkt::newSharedHeadData size > " + std::to_string(PktManager::maxHeadData) +
                               " not allowed");
  }
  if (!headData_ || headData_->shared() || headData_->capacity() < size) headData_ = manager_->newHeadData(size);
  dataLen_ = 0;
}

void Pkt::sharedDataResetForReuse() {
  metadataClear();
  if (headData_ && headData_->shared()) headData_ = manager_->newHeadData(headData_->capacity());
}

uint32_t Pkt::maxData() const noexcept { return headData_ ? headData_->capacity() : PktManager::maxHeadData; }

void Pkt::dataLenIs(uint32_t length) {
  if (!headData_ && length) throw Vorn::RangeException("Pkt::dataLen without head data not allowed");
  if (headData_ && length > headData_->capacity()) throw Vorn::RangeException("Pkt::dataLen > maxData not allowed");
  dataLen_ = length;
}

void Pkt::dataIs(void const * bytes, uint32_t length) {
  newSharedHeadData(length);
  if (length) std::memcpy(headData_->bytes(), bytes, length);
  dataLen_ = length;
}

Vorn::Ptr<Pkt> Pkt::newSharedCopy() const {
  Vorn::Ptr<Pkt> copy = manager_->newPkt();
  if (!copy) return copy;
  copy->headData_ = headData_;
  copy->dataLen_ = dataLen_;
  copy->ifIndex_ = ifIndex_;
  copy->pktType_ = pktType_;
  copy->rxTime_ = rxTime_;
  copy->hasVlanTag_ = hasVlanTag_;
  copy->vlanTci_ = vlanTci_;
  copy->vlanTpid_ = vlanTpid_;
  return copy;
}

void Pkt::newSeparateVlanTag(uint16_t tci, uint16_t tpid) {
  hasVlanTag_ = true;
  vlanTci_ = tci;
  vlanTpid_ = tpid;
}

void Pkt::vlanTagDel() noexcept {
  hasVlanTag_ = false;
  vlanTci_ = 0;
  vlanTpid_ = 0;
}

}  // namespace Ovel
