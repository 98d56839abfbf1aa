#include "intfsm/IntfByDevice/AllIntfDeviceNameReactor.h"

#include "intfsm/IntfByDevice/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration("Interface::AllIntfDeviceNameReactor", nullptr,
                                      {"intfStatus", "allIntfStatusDir", "allIntfStatusLocalDir", "intf", "netNs",
                                       "filterByNetNs", "intfStatusToDeviceName", "intfStatusLocal"});

constexpr char handleDeviceNameText[] = "void Interface::AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)";
}  // namespace

class AllIntfDeviceNameReactor::VornAllIntfStatusDir : public Vorn::Reactor<AllIntfDeviceNameReactor, AllIntfStatusDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatus(Ovel::IntfId const & id) override { forward(&AllIntfDeviceNameReactor::doIntfStatusChange, id); }
  void onIntfStatusvornImmediate() override { forward(&AllIntfDeviceNameReactor::doIntfStatusReconcile, true); }
};

class AllIntfDeviceNameReactor::VornAllIntfStatusLocalDir
    : public Vorn::Reactor<AllIntfDeviceNameReactor, AllIntfStatusLocalDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusLocal(Ovel::IntfId const & id) override {
    forward(&AllIntfDeviceNameReactor::doIntfStatusLocalChange, id);
  }
  void onIntfStatusLocalvornImmediate() override {
    forward(&AllIntfDeviceNameReactor::doIntfStatusLocalReconcile, true);
  }
};

void AllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName() {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName()" << " notifier=" << intfId_);
  forward(&AllIntfDeviceNameReactor::handleDeviceName, intfId_);
}

void AllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs() {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs()" << " notifier="
                                                                                                      << intfId_);
  forward(&AllIntfDeviceNameReactor::handleDeviceName, intfId_);
}

Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, Vorn::Ptr<IntfStatusIndexDir> const & intf,
    Ovel::NamespaceName const & netNs) {
  return new AllIntfDeviceNameReactor(allIntfStatusDir, allIntfStatusLocalDir, intf, netNs);
}

AllIntfDeviceNameReactor::AllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                                   Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                                                   Vorn::Ptr<IntfStatusIndexDir> const & intf,
                                                   Ovel::NamespaceName const & netNs)
    : Entity(Vorn::Name()),
      allIntfStatusDir_(allIntfStatusDir),
      allIntfStatusLocalDir_(allIntfStatusLocalDir),
      intf_(intf),
      netNs_(netNs) {
  if (!intf_) throw Vorn::RangeException(Vorn::nullParameterText("intf", "Interface::AllIntfDeviceNameReactor"));
  // Both directories are bound before either fills the index, because each key-less handler insists
  // on an empty index: bound inactive (binding then delivers nothing), the key-less handlers run, and
  // only then does each interface get its reactors, which index it.
  allIntfStatusDirReactor_ = Vorn::reactorNew<VornAllIntfStatusDir>(this, nullptr);
  allIntfStatusLocalDirReactor_ = Vorn::reactorNew<VornAllIntfStatusLocalDir>(this, nullptr);
  allIntfStatusDirReactor_->hasNotificationActiveIs(false);
  allIntfStatusLocalDirReactor_->hasNotificationActiveIs(false);
  allIntfStatusDirReactor_->notifierIs(allIntfStatusDir_);
  allIntfStatusLocalDirReactor_->notifierIs(allIntfStatusLocalDir_);
  handleIntfStatus();
  handleIntfStatusLocal();
  doIntfStatusReconcile(false);
  doIntfStatusLocalReconcile(false);
  allIntfStatusDirReactor_->hasNotificationActiveIs(true);
  allIntfStatusLocalDirReactor_->hasNotificationActiveIs(true);
}

AllIntfDeviceNameReactor::~AllIntfDeviceNameReactor() {
  vornDoZombieReactors(true);
  intfStatus_.delAll();
  intfStatusLocal_.delAll();
  Vorn::reactorRetire(*allIntfStatusDirReactor_);
  Vorn::reactorRetire(*allIntfStatusLocalDirReactor_);
}

void AllIntfDeviceNameReactor::vornDoZombieReactors(bool zombie) {
  intfStatus_.zombieIs(zombie);
  intfStatusLocal_.zombieIs(zombie);
  allIntfStatusDirReactor_->vornZombieIs(zombie);
  allIntfStatusLocalDirReactor_->vornZombieIs(zombie);
}

void AllIntfDeviceNameReactor::intfStatusIs(Vorn::Ptr<IntfStatus const> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::AllIntfDeviceNameReactor"));
  intfStatus_.reconcileKey(this, status->intfId(), status);
}

void AllIntfDeviceNameReactor::intfStatusDel(Ovel::IntfId const & id) { intfStatus_.del(id); }

void AllIntfDeviceNameReactor::intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local) {
  if (!local) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "Interface::AllIntfDeviceNameReactor"));
  }
  intfStatusLocal_.reconcileKey(this, local->intfId(), local);
}

void AllIntfDeviceNameReactor::intfStatusLocalDel(Ovel::IntfId const & id) { intfStatusLocal_.del(id); }

void AllIntfDeviceNameReactor::filterByNetNsIs(bool filter) {
  if (filter == filterByNetNs_) return;
  filterByNetNs_ = filter;
  handleFilter();
  notify(&NotifieeConst::onFilterByNetNs);
}

void AllIntfDeviceNameReactor::intfStatusToDeviceNameDel(Ovel::IntfId const & intfId) {
  delEntry(intfStatusToDeviceName_, intfId, &NotifieeConst::onIntfStatusToDeviceName);
}

void AllIntfDeviceNameReactor::doIntfStatusChange(Ovel::IntfId const & intfId) {
  intfStatus_.reconcileKey(this, intfId, allIntfStatusDir_->intfStatus(intfId));
  handleIntfStatus(intfId);
}

void AllIntfDeviceNameReactor::doIntfStatusReconcile(bool keyless) {
  if (keyless) handleIntfStatus();
  if (allIntfStatusDir_) intfStatus_.reconcile(this, allIntfStatusDir_->intfStatusIter());
}

void AllIntfDeviceNameReactor::doIntfStatusLocalChange(Ovel::IntfId const & intfId) {
  intfStatusLocal_.reconcileKey(this, intfId, allIntfStatusLocalDir_->intfStatusLocal(intfId));
  handleIntfStatusLocal(intfId);
}

void AllIntfDeviceNameReactor::doIntfStatusLocalReconcile(bool keyless) {
  if (keyless) handleIntfStatusLocal();
  if (allIntfStatusLocalDir_) intfStatusLocal_.reconcile(this, allIntfStatusLocalDir_->intfStatusLocalIter());
}

void AllIntfDeviceNameReactor::handleIntfStatus() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void AllIntfDeviceNameReactor::handleIntfStatusLocal() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void AllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId)" << " for " << intfId);
  if (!allIntfStatusDir_ || !allIntfStatusDir_->intfStatus(intfId)) {
    Vorn::String const name = intfStatusToDeviceName(intfId);
    if (name.empty()) return;
    IBD_TRACE(3, intfId << " was removed");
    intf_->intfStatusDel(name);
    intfStatusToDeviceNameDel(intfId);
    return;
  }
  IBD_TRACE(3, intfId << " was added");
  handleDeviceName(intfId);
}

void AllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId)" << " for " << intfId);
  if (!allIntfStatusLocalDir_ || !allIntfStatusLocalDir_->intfStatusLocal(intfId)) {
    if (intfStatusToDeviceName(intfId).empty()) return;
    IBD_TRACE(3, intfId << " local status was removed");
    handleDeviceName(intfId);
    return;
  }
  IBD_TRACE(3, intfId << "local status was added");
  handleDeviceName(intfId);
}

void AllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId const & intfId) {
  IBD_TRACE(3, handleDeviceNameText << " for " << intfId);
  Vorn::Ptr<IntfStatus const> const status = allIntfStatusDir_ ? allIntfStatusDir_->intfStatus(intfId) : nullptr;
  if (!status) {
    IBD_TRACE(3, handleDeviceNameText << " no intfStatus for " << intfId);
    return;
  }
  Vorn::Ptr<IntfStatusLocal const> const local =
      allIntfStatusLocalDir_ ? allIntfStatusLocalDir_->intfStatusLocal(intfId) : nullptr;
  Ovel::NamespaceName const myNsName = netNs_.orDefault();
  Ovel::NamespaceName const intfNsName = local ? local->netNsName().orDefault() : Ovel::NamespaceName::defaultNamespace();
  IBD_TRACE(3, handleDeviceNameText << " myNsName is " << '"' << myNsName << '"' << " intfNsName is " << '"'
                                    << intfNsName << '"');

  Vorn::String const prev = intfStatusToDeviceName(intfId);
  if (!(myNsName == intfNsName) && filterByNetNs_) {
    if (prev.empty()) return;
    IBD_TRACE(3, intfId << " was moved to another namespace");
    intf_->intfStatusDel(prev);
    intfStatusToDeviceNameDel(intfId);
    return;
  }

  Vorn::String const cur = status->deviceName();
  bool deleted = false;
  if (!prev.empty() && !(prev == cur)) {
    IBD_TRACE(0, "Deleting intf " << prev << "->" << intfId);
    intf_->intfStatusDel(prev);  // the record of prev goes below, or is overwritten by cur
    deleted = true;
  }
  if (cur.empty()) {
    if (!prev.empty()) intfStatusToDeviceNameDel(intfId);
    if (!deleted) IBD_TRACE(0, "Ignoring notification about " << intfId << " device was " << prev << " is " << cur);
    return;
  }
  // Also when cur is prev: re-asserting the entry takes the key back from a duplicate that won it.
  IBD_TRACE(0, "Adding intf " << cur << "->" << intfId);
  intf_->intfStatusIs(cur, status);
  setEntry(intfStatusToDeviceName_, intfId, cur, &NotifieeConst::onIntfStatusToDeviceName);
}

void AllIntfDeviceNameReactor::handleFilter() {
  // Only what is indexed now: turning the filter off brings nothing back by itself.
  for (auto const & e : intf_->intfStatusIter()) {
    Ovel::IntfId const intfId = e.value->intfId();
    IBD_TRACE(3, "void Interface::AllIntfDeviceNameReactor::handleFilter()" << " for " << intfId);
    handleIntfStatusLocal(intfId);
  }
}

}  // namespace Interface
