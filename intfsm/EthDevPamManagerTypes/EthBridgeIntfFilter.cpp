#include "intfsm/EthDevPamManagerTypes/EthBridgeIntfFilter.h"

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
using F = EthBridgeIntfFilter;
Vorn::AttributeTableOf<F> const attributes("Interface::EthBridgeIntfFilter", [](auto & t) {
  t.scalar("deviceIntfStatusDir", &F::deviceIntfStatusDir)
      .scalar("desiredIntfDir", &F::desiredIntfDir)
      .collection("intfStatus", &F::intfStatusIter, &F::intfStatusIs, &F::intfStatusDel);
});
Intfsm::TypeRegistration registration("Interface::EthBridgeIntfFilter", nullptr, attributes);
}  // namespace

class EthBridgeIntfFilter::VornDeviceIntfStatusDir : public Vorn::Reactor<EthBridgeIntfFilter, DeviceIntfStatusDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusAndDeviceName(Ovel::IntfId const & intfId) override {
    forward<Ovel::IntfId const &>(&EthBridgeIntfFilter::handleDeviceIntfStatus, intfId);
  }
  void onIntfStatusAndDeviceNamevornImmediate() override { forward<>(&EthBridgeIntfFilter::handleDeviceIntfStatus); }
};

Vorn::Ptr<EthBridgeIntfFilter> ethBridgeIntfFilterFactory(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                                          Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir) {
  char const * const missing = !deviceIntfStatusDir ? "deviceIntfStatusDir" : !desiredIntfDir ? "desiredIntfDir" : nullptr;
  if (missing) throw Vorn::RangeException(Vorn::nullParameterText(missing, "Interface::EthBridgeIntfFilter"));
  Vorn::Ptr<EthBridgeIntfFilter> filter = new EthBridgeIntfFilter(deviceIntfStatusDir, desiredIntfDir);
  // Bound once the filter is complete: binding runs handleDeviceIntfStatus() over what is there.
  filter->deviceIntfStatusDirReactor_ = Vorn::reactorNew<EthBridgeIntfFilter::VornDeviceIntfStatusDir>(filter.ptr(), deviceIntfStatusDir);
  return filter;
}

EthBridgeIntfFilter::EthBridgeIntfFilter(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                         Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir)
    : Entity(Vorn::Name()), deviceIntfStatusDir_(deviceIntfStatusDir), desiredIntfDir_(desiredIntfDir) {}

EthBridgeIntfFilter::~EthBridgeIntfFilter() {
  vornDoZombieReactors(true);
  intfStatus_.delAll();
  deviceIntfStatusDirReactor_ = nullptr;
}

void EthBridgeIntfFilter::vornDoZombieReactors(bool zombie) {
  intfStatus_.zombieIs(zombie);
  if (deviceIntfStatusDirReactor_) deviceIntfStatusDirReactor_->vornZombieIs(zombie);
}

void EthBridgeIntfFilter::intfStatusIs(Ovel::IntfId const & intfId, Vorn::Ptr<IntfStatus const> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::EthBridgeIntfFilter"));
  if (intfStatus_.reconcileKey(this, intfId, status) != Vorn::ReactorChange::none) {
    notify(&NotifieeConst::onIntfStatus, intfId);
  }
}

void EthBridgeIntfFilter::intfStatusDel(Ovel::IntfId const & intfId) {
  Ovel::IntfId const key = intfId;  // `intfId` may be the key of the entry that goes
  if (intfStatus_.del(key)) notify(&NotifieeConst::onIntfStatus, key);
}

void EthBridgeIntfFilter::handleDeviceIntfStatus() {
  EDPM_TRACE(8, "void Interface::EthBridgeIntfFilter::handleDeviceIntfStatus()");
  for (auto const & e : deviceIntfStatusDir_->intfStatusAndDeviceNameIter()) handleDeviceIntfStatus(e.key);
}

void EthBridgeIntfFilter::handleDeviceIntfStatus(Ovel::IntfId const & intfId) {
  IntfStatusAndDeviceName const * record = deviceIntfStatusDir_->intfStatusAndDeviceNameIter().find(intfId);
  EDPM_TRACE(8, "EthBridgeIntfFilter::" << "handleDeviceIntfStatus" << "(" << intfId << ") "
                                        << (record ? "created" : "deleted"));
  if (!record) {
    intfStatusDel(intfId);
    desiredIntfDir_->intfDesiredDel(intfId);
    return;
  }
  if (!record->intfStatus) {
    desiredIntfDir_->intfDesiredIs(intfId, true);  // its status reactor stays, silent while the record has none
    return;
  }
  Vorn::Ptr<VornIntfStatus> const kept = intfStatus(intfId);
  if (kept && kept->notifier() == record->intfStatus) {
    kept->handleForwardingModel();  // the same status again (it may have been absent meanwhile): it decides
    return;
  }
  intfStatusIs(intfId, record->intfStatus);  // a new or moved reactor decides at once
}

void EthBridgeIntfFilter::VornIntfStatus::handleForwardingModel() {
  EDPM_TRACE(8, "void Interface::EthBridgeIntfFilter::VornIntfStatus::handleForwardingModel()");
  Vorn::Ptr<IntfStatus const> const status = notifier();
  IntfStatusAndDeviceName const * record = owner()->deviceIntfStatusDir()->intfStatusAndDeviceNameIter().find(intfId_);
  if (!status || !record || record->intfStatus != status) return;  // only the status the record names decides
  if (status->forwardingModel() == forwardingModelBridged) {
    EDPM_TRACE(5, intfId_ << " is bridged");
    owner()->desiredIntfDir()->intfDesiredIs(intfId_, true);
  } else {
    EDPM_TRACE(5, intfId_ << " is not bridged");
    owner()->desiredIntfDir()->intfDesiredDel(intfId_);
  }
}

}  // namespace Interface
