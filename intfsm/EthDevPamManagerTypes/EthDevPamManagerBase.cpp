#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerBase.h"

#include <string>

#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/SockFilterProgramValue.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

namespace {
using B = EthDevPamManagerBase;
Vorn::AttributeTableOf<B> const attributes("Interface::EthDevPamManagerBase", [](auto & t) {
  t.scalar("desiredIntfDir", &B::desiredIntfDir)
      .scalar("pamCollection", &B::pamCollection)
      .scalar("enabled", &B::enabled, &B::enabledIs)
      .scalar("ethProtocol", &B::ethProtocol, &B::ethProtocolIs)
      .scalar("listenAddr", &B::listenAddr, &B::listenAddrIs)
      .scalar("filterProgram", &B::filterProgram, &B::filterProgramIs)
      .scalar("maxRxPktData", &B::maxRxPktData, &B::maxRxPktDataIs);
});
Intfsm::TypeRegistration registration("Interface::EthDevPamManagerBase", nullptr, attributes);
}  // namespace

class EthDevPamManagerBase::VornDesiredIntfDir : public Vorn::Reactor<EthDevPamManagerBase, PamDesiredIntfDir> {
 public:
  using Reactor::Reactor;
  void onIntfDesired(Ovel::IntfId const & intfId) override { forward(&EthDevPamManagerBase::handleIntf, intfId); }
};

EthDevPamManagerBase::EthDevPamManagerBase(Vorn::Name const & name,
                                           Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                           Vorn::Ptr<EthDevPamCollection> const & pamCollection)
    : Entity(name),
      desiredIntfDir_(desiredIntfDir),
      pamCollection_(pamCollection),
      desiredIntfDirReactor_(Vorn::reactorNew<VornDesiredIntfDir>(this, desiredIntfDir)) {}

EthDevPamManagerBase::~EthDevPamManagerBase() {
  vornDoZombieReactors(true);
  desiredIntfDirReactor_ = nullptr;
}

void EthDevPamManagerBase::vornDoZombieReactors(bool zombie) {
  if (desiredIntfDirReactor_) desiredIntfDirReactor_->vornZombieIs(zombie);
}

void EthDevPamManagerBase::maxRxPktDataIs(uint32_t bytes) {
  if (bytes < minMaxRxPktData || bytes > Ovel::PktManager::maxHeadData) {
    throw Vorn::RangeException("EthDevPamManagerBase::maxRxPktData < " + std::to_string(minMaxRxPktData) + " or > " +
                               std::to_string(Ovel::PktManager::maxHeadData) + " not allowed");
  }
  maxRxPktDataCheck(bytes);
  set(maxRxPktData_, bytes, &NotifieeConst::onMaxRxPktData);
}

bool EthDevPamManagerBase::enabledStore(bool enabled) {
  if (enabled == enabled_) return false;
  enabled_ = enabled;
  return true;
}

bool EthDevPamManagerBase::filterProgramStore(Ovel::SockFilterProgram const & program) {
  if (program == filterProgram_) return false;
  filterProgram_ = program;
  return true;
}

}  // namespace Interface
