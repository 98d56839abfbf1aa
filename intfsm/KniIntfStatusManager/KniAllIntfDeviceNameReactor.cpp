#include "intfsm/KniIntfStatusManager/KniAllIntfDeviceNameReactor.h"

#include "intfsm/KniIntfStatusManager/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration("Interface::KniAllIntfDeviceNameReactor", nullptr,
                                      {"intfStatus", "allIntfStatusDir", "allIntfStatusLocalDir",
                                       "netNsIntfStatusIndexDir", "filterByNetNs", "netNsIntfIdMap", "intfToNs",
                                       "intfStatusToDeviceName", "intfStatusLocal", "initialized"});

constexpr char handleDeviceNameText[] = "void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)";
}  // namespace

class KniAllIntfDeviceNameReactor::VornAllIntfStatusDir
    : public Vorn::Reactor<KniAllIntfDeviceNameReactor, AllIntfStatusDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatus(Ovel::IntfId const & id) override { forward(&KniAllIntfDeviceNameReactor::doIntfStatusChange, id); }
  void onIntfStatusvornImmediate() override { forward(&KniAllIntfDeviceNameReactor::doIntfStatusReconcile, true); }
};

class KniAllIntfDeviceNameReactor::VornAllIntfStatusLocalDir
    : public Vorn::Reactor<KniAllIntfDeviceNameReactor, AllIntfStatusLocalDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusLocal(Ovel::IntfId const & id) override {
    forward(&KniAllIntfDeviceNameReactor::doIntfStatusLocalChange, id);
  }
  void onIntfStatusLocalvornImmediate() override {
    forward(&KniAllIntfDeviceNameReactor::doIntfStatusLocalReconcile, true);
  }
};

class KniAllIntfDeviceNameReactor::VornNetNsIntfStatusIndexDir
    : public Vorn::Reactor<KniAllIntfDeviceNameReactor, NetNsIntfStatusIndexDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusIndexDir(Vorn::Name const & name) override {
    forward(&KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir, name);
  }
};

void KniAllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName() {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName()" << " notifier="
                                                                                                    << intfId_);
  forward(&KniAllIntfDeviceNameReactor::handleDeviceName, intfId_);
}

void KniAllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs() {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs()"
                     << " notifier=" << intfId_);
  forward(&KniAllIntfDeviceNameReactor::handleDeviceName, intfId_);
}

Vorn::Ptr<KniAllIntfDeviceNameReactor> kniAllIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs) {
  return new KniAllIntfDeviceNameReactor(allIntfStatusDir, allIntfStatusLocalDir, netNsIntfStatusIndexDir,
                                         filterByNetNs);
}

KniAllIntfDeviceNameReactor::KniAllIntfDeviceNameReactor(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs)
    : Entity(Vorn::Name()),
      allIntfStatusDir_(allIntfStatusDir),
      allIntfStatusLocalDir_(allIntfStatusLocalDir),
      netNsIntfStatusIndexDir_(netNsIntfStatusIndexDir),
      filterByNetNs_(filterByNetNs) {
  if (!netNsIntfStatusIndexDir_) {
    throw Vorn::RangeException(
        Vorn::nullParameterText("netNsIntfStatusIndexDir", "Interface::KniAllIntfDeviceNameReactor"));
  }
  // As in AllIntfDeviceNameReactor: both directories are bound (inactive, so binding delivers nothing)
  // and both key-less handlers have run before any interface is filed.
  allIntfStatusDirReactor_ = Vorn::reactorNew<VornAllIntfStatusDir>(this, nullptr);
  allIntfStatusLocalDirReactor_ = Vorn::reactorNew<VornAllIntfStatusLocalDir>(this, nullptr);
  allIntfStatusDirReactor_->hasNotificationActiveIs(false);
  allIntfStatusLocalDirReactor_->hasNotificationActiveIs(false);
  allIntfStatusDirReactor_->notifierIs(allIntfStatusDir_);
  allIntfStatusLocalDirReactor_->notifierIs(allIntfStatusLocalDir_);
  handleIntfStatus();
  handleIntfStatusLocal();
  netNsIntfStatusIndexDirReactor_ = Vorn::reactorNew<VornNetNsIntfStatusIndexDir>(this, netNsIntfStatusIndexDir_);
  doIntfStatusReconcile(false);
  doIntfStatusLocalReconcile(false);
  allIntfStatusDirReactor_->hasNotificationActiveIs(true);
  allIntfStatusLocalDirReactor_->hasNotificationActiveIs(true);
  handleInitialized();
}

KniAllIntfDeviceNameReactor::~KniAllIntfDeviceNameReactor() {
  vornDoZombieReactors(true);
  intfStatus_.delAll();
  intfStatusLocal_.delAll();
  Vorn::reactorRetire(*allIntfStatusDirReactor_);
  Vorn::reactorRetire(*allIntfStatusLocalDirReactor_);
  Vorn::reactorRetire(*netNsIntfStatusIndexDirReactor_);
}

void KniAllIntfDeviceNameReactor::vornDoZombieReactors(bool zombie) {
  intfStatus_.zombieIs(zombie);
  intfStatusLocal_.zombieIs(zombie);
  allIntfStatusDirReactor_->vornZombieIs(zombie);
  allIntfStatusLocalDirReactor_->vornZombieIs(zombie);
  netNsIntfStatusIndexDirReactor_->vornZombieIs(zombie);
}

void KniAllIntfDeviceNameReactor::handleInitialized() {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleInitialized()");
  if (initialized_) return;
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
}

void KniAllIntfDeviceNameReactor::intfStatusIs(Vorn::Ptr<IntfStatus const> const & status) {
  if (!status) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::KniAllIntfDeviceNameReactor"));
  }
  intfStatus_.reconcileKey(this, status->intfId(), status);
}

void KniAllIntfDeviceNameReactor::intfStatusDel(Ovel::IntfId const & id) { intfStatus_.del(id); }

void KniAllIntfDeviceNameReactor::intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local) {
  if (!local) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "Interface::KniAllIntfDeviceNameReactor"));
  }
  intfStatusLocal_.reconcileKey(this, local->intfId(), local);
}

void KniAllIntfDeviceNameReactor::intfStatusLocalDel(Ovel::IntfId const & id) { intfStatusLocal_.del(id); }

Vorn::Ptr<NetNsIntfIdMap> KniAllIntfDeviceNameReactor::netNsIntfIdMapIs(Vorn::String const & nsName) {
  if (Vorn::Ptr<NetNsIntfIdMap> existing = netNsIntfIdMap_.get(nsName)) return existing;
  Vorn::Ptr<NetNsIntfIdMap> created = netNsIntfIdMapFactory(Vorn::Name(nsName));
  setEntry(netNsIntfIdMap_, nsName, created, &NotifieeConst::onNetNsIntfIdMap);
  return created;
}

void KniAllIntfDeviceNameReactor::netNsIntfIdMapDel(Vorn::String const & nsName) {
  delEntry(netNsIntfIdMap_, nsName, &NotifieeConst::onNetNsIntfIdMap);
}

void KniAllIntfDeviceNameReactor::doIntfStatusChange(Ovel::IntfId const & intfId) {
  intfStatus_.reconcileKey(this, intfId, allIntfStatusDir_->intfStatus(intfId));
  handleIntfStatus(intfId);
}

void KniAllIntfDeviceNameReactor::doIntfStatusReconcile(bool keyless) {
  if (keyless) handleIntfStatus();
  if (allIntfStatusDir_) intfStatus_.reconcile(this, allIntfStatusDir_->intfStatusIter());
}

void KniAllIntfDeviceNameReactor::doIntfStatusLocalChange(Ovel::IntfId const & intfId) {
  intfStatusLocal_.reconcileKey(this, intfId, allIntfStatusLocalDir_->intfStatusLocal(intfId));
  handleIntfStatusLocal(intfId);
}

void KniAllIntfDeviceNameReactor::doIntfStatusLocalReconcile(bool keyless) {
  if (keyless) handleIntfStatusLocal();
  if (allIntfStatusLocalDir_) intfStatusLocal_.reconcile(this, allIntfStatusLocalDir_->intfStatusLocalIter());
}

Vorn::Ptr<IntfStatusIndexDir> KniAllIntfDeviceNameReactor::indexOf(Ovel::NamespaceName const & ns) const {
  return netNsIntfStatusIndexDir_->intfStatusIndexDir(Vorn::Name(ns.name()));
}

void KniAllIntfDeviceNameReactor::handleIntfStatus() { VORN_ASSERT(intfStatusToDeviceNames() == 0); }

void KniAllIntfDeviceNameReactor::handleIntfStatusLocal() { VORN_ASSERT(intfStatusToDeviceNames() == 0); }

void KniAllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId const & intfId) {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId)"
                     << " for " << intfId << " filterByNetNs: " << filterByNetNs_);
  if (allIntfStatusDir_ && allIntfStatusDir_->intfStatus(intfId)) {
    KNISM_TRACE(3, intfId << " was added");
  } else if (!intfStatusToDeviceName(intfId).empty()) {
    KNISM_TRACE(3, intfId << " was removed");
  } else {
    return;
  }
  handleDeviceName(intfId);
}

void KniAllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId const & intfId) {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleIntfStatusLocal(Ovel::IntfId)"
                     << " for " << intfId << " filterByNetNs: " << filterByNetNs_);
  if (allIntfStatusLocalDir_ && allIntfStatusLocalDir_->intfStatusLocal(intfId)) {
    KNISM_TRACE(3, intfId << "local status was added");
  } else if (!intfStatusToDeviceName(intfId).empty()) {
    KNISM_TRACE(3, intfId << " local status was removed");
  } else {
    return;
  }
  handleDeviceName(intfId);
}

void KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId const & intfId) {
  KNISM_TRACE(3, handleDeviceNameText << " for " << intfId << " filterByNetNs: " << filterByNetNs_);
  Vorn::Ptr<IntfStatus const> const status = allIntfStatusDir_ ? allIntfStatusDir_->intfStatus(intfId) : nullptr;
  Vorn::Ptr<IntfStatusLocal const> const local =
      allIntfStatusLocalDir_ ? allIntfStatusLocalDir_->intfStatusLocal(intfId) : nullptr;
  Ovel::NamespaceName intfNsName = Ovel::NamespaceName::defaultNamespace();
  if (local && !local->netNsName().empty() && filterByNetNs_) intfNsName = local->netNsName();
  Ovel::NamespaceName const prevNsName = intfToNs(intfId).orDefault();
  bool const moved = !(prevNsName == intfNsName);
  KNISM_TRACE(3, handleDeviceNameText << "interface " << intfId << " prevNsName is " << '"' << prevNsName << '"'
                                      << " intfNsName is " << '"' << intfNsName << '"');

  Vorn::Ptr<IntfStatusIndexDir> const dir = indexOf(intfNsName);
  Vorn::Ptr<NetNsIntfIdMap> const ids = netNsIntfIdMapIs(intfNsName.name());
  if (moved) {
    if (Vorn::Ptr<NetNsIntfIdMap> const prevIds = netNsIntfIdMap(prevNsName.name())) prevIds->intfDel(intfId);
  }
  if (!dir) {
    // Waits for the namespace's index; until then it stays where it was.
    ids->intfIs(intfId, true);
    KNISM_TRACE(3, handleDeviceNameText << " no intfStatusDir created for " << intfNsName);
    return;
  }

  setEntry(intfToNs_, intfId, intfNsName, &NotifieeConst::onIntfToNs);
  Vorn::String const prev = intfStatusToDeviceName(intfId);
  if (!prev.empty() && moved && filterByNetNs_) {
    if (Vorn::Ptr<IntfStatusIndexDir> const prevDir = indexOf(prevNsName)) {
      KNISM_TRACE(0, "Removing intf " << intfId << " from prevDir " << prevDir->name());
      prevDir->intfStatusDel(prev);
    }
  }
  if (status) {
    Vorn::String const cur = status->deviceName();
    if (!prev.empty() && !(prev == cur)) {
      KNISM_TRACE(0, "Deleting intf " << prev << "->" << intfId << " in " << dir->name());
      dir->intfStatusDel(prev);
    }
    if (!cur.empty()) {
      KNISM_TRACE(0, "Adding intf " << cur << "->" << intfId << " in " << dir->name());
      dir->intfStatusIs(cur, status);
      setEntry(intfStatusToDeviceName_, intfId, cur, &NotifieeConst::onIntfStatusToDeviceName);
      ids->intfIs(intfId, true);
      return;
    }
  }
  if (prev.empty()) return;
  KNISM_TRACE(0, "Removing intf " << intfId << " from " << dir->name());
  dir->intfStatusDel(prev);
  delEntry(intfStatusToDeviceName_, intfId, &NotifieeConst::onIntfStatusToDeviceName);
  ids->intfDel(intfId);
}

void KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir(Vorn::String const & nsName) {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir(Vorn::String)"
                     << " for " << nsName << " filterByNetNs: " << filterByNetNs_);
  Vorn::Ptr<NetNsIntfIdMap> const ids = netNsIntfIdMap(nsName);
  if (!ids) return;
  for (auto const & e : ids->intfIter()) handleDeviceName(Ovel::IntfId(e.key));
}

}  // namespace Interface
