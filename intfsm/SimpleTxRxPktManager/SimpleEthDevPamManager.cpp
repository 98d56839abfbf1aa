#include "intfsm/SimpleTxRxPktManager/SimpleEthDevPamManager.h"

#include "intfsm/LibraryTypes.h"
#include "intfsm/SimpleTxRxPktManager/internal/BaseSimpleAttributes.h"
#include "intfsm/SimpleTxRxPktManager/internal/Trace.h"

namespace Interface {

namespace {
using S = SimpleEthDevPamManager;
Vorn::AttributeTableOf<S> const attributes("Interface::SimpleEthDevPamManager", [](auto & t) {
  baseSimpleAttributes(t)
      .scalar("kniStatus", &S::kniStatus)
      .instantiating("intfStatusManagerRoot", &S::intfStatusManagerRoot, &S::intfStatusManagerRootIs,
                     &S::intfStatusManagerRootDel)
      .scalar("initialized", &S::initialized, &S::initializedIs);
});
Intfsm::TypeRegistration registration("Interface::SimpleEthDevPamManager", nullptr, attributes);
}  // namespace

Vorn::Ptr<SimpleEthDevPamManager> simpleEthDevPamManagerFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus) {
  Vorn::Ptr<SimpleEthDevPamManager> manager = new SimpleEthDevPamManager(allIntfStatusDir, allIntfStatusLocalDir, kniStatus);
  manager->doAdoptDirectories();
  return manager;
}

SimpleEthDevPamManager::SimpleEthDevPamManager(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                               Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                                               Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus)
    : BaseSimpleEthDevPamManager(allIntfStatusDir, allIntfStatusLocalDir), kniStatus_(kniStatus) {}

SimpleEthDevPamManager::~SimpleEthDevPamManager() {
  // The feeder stops before the base's manager and directories go.
  intfStatusManagerRoot_ = nullptr;
}

Vorn::Ptr<NetNsIntfStatusManagerRoot> SimpleEthDevPamManager::intfStatusManagerRootIs(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, bool filterByNetNs) {
  auto const & r = intfStatusManagerRoot_;
  if (r && r->allIntfStatusDir() == allIntfStatusDir && r->allIntfStatusLocalDir() == allIntfStatusLocalDir &&
      r->filterByNetNs() == filterByNetNs) {
    return r;
  }
  intfStatusManagerRoot_ = nullptr;
  intfStatusManagerRoot_ = netNsIntfStatusManagerRootFactory(allIntfStatusDir, allIntfStatusLocalDir, filterByNetNs);
  notify(&NotifieeConst::onIntfStatusManagerRoot);
  return intfStatusManagerRoot_;
}

void SimpleEthDevPamManager::intfStatusManagerRootDel() {
  if (!intfStatusManagerRoot_) return;
  intfStatusManagerRoot_ = nullptr;
  notify(&NotifieeConst::onIntfStatusManagerRoot);
}

void SimpleEthDevPamManager::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  if (initialized) {
    handleInitialized();  // sets the flag and notifies
    return;
  }
  initialized_ = false;
  notify(&NotifieeConst::onInitialized);
}

void SimpleEthDevPamManager::handleInitialized() {
  STRPM_TRACE(8, "void Interface::SimpleEthDevPamManager::handleInitialized()");
  intfStatusManagerRootIs(allIntfStatusDir(), allIntfStatusLocalDir(), false);
  intfStatusManagerRoot_->intfStatusManagerIs(deviceIntfStatusDir(), kniStatus_,
                                              Ovel::NamespaceName(Vorn::String(Ovel::DEFAULT_NS)));
  if (initialized_) return;
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
}

}  // namespace Interface
