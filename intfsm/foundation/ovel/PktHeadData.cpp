#include "intfsm/foundation/ovel/PktHeadData.h"

#include "intfsm/foundation/ovel/PktManager.h"

namespace Ovel {

// Left uninitialised: every byte a reader sees is written by the read that fills the packet.
PktHeadData::PktHeadData(PktManager * manager, uint32_t capacity)
    : manager_(manager), bytes_(new uint8_t[capacity]), capacity_(capacity) {}

PktHeadData::~PktHeadData() { delete[] bytes_; }

void PktHeadData::onZeroReferences() const { manager_->headDataReturn(const_cast<PktHeadData *>(this)); }

}  // namespace Ovel
