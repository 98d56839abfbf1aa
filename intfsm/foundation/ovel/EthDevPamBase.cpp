#include "intfsm/foundation/ovel/EthDevPamBase.h"

#include <string>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

EthDevPamBase::EthDevPamBase(Vorn::Name const & name) : Pam(name) {}

EthDevPamBase::~EthDevPamBase() = default;

void EthDevPamBase::maxRxPktDataIs(uint32_t bytes) {
  if (bytes > PktManager::maxHeadData) {
    throw Vorn::RangeException("EthDevPamBase::maxRxPktData > " + std::to_string(PktManager::maxHeadData) +
                               " not allowed");
  }
  set(maxRxPktData_, bytes, &NotifieeConst::onMaxRxPktData);
}

void EthDevPamBase::filterProgramIs(SockFilterProgram const & program) {
  set(filterProgram_, program, &NotifieeConst::onFilterProgram);
}

}  // namespace Ovel
