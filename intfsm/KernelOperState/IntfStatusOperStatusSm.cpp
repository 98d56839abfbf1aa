#include "intfsm/KernelOperState/IntfStatusOperStatusSm.h"

#include <iostream>
#include <utility>

#include "intfsm/KernelOperState/internal/NetlinkSocket.h"
#include "intfsm/KernelOperState/internal/Trace.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/System.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {
Intfsm::TypeRegistration registration("KernelOperState::IntfStatusOperStatusSm", nullptr,
                                      IntfStatusOperStatusSm::vornAttributes());
}  // namespace

// The four inputs are fixed at construction; the per-interface collections hold the nested reactors.
Vorn::AttributeTable const & IntfStatusOperStatusSm::vornAttributes() {
  using S = IntfStatusOperStatusSm;
  static Vorn::AttributeTableOf<S> const table("KernelOperState::IntfStatusOperStatusSm", [](auto & t) {
    t.scalar("intfStatusDir", &S::intfStatusDir)
        .scalar("intfStatusLocalDir", &S::intfStatusLocalDir)
        .scalar("kosm", &S::kosm)
        .scalar("netNsCollection", &S::netNsCollection)
        .collection("intfStatus", [](S const & s) -> auto const & { return s.intfStatus_; }, &S::intfStatusIs,
                    &S::intfStatusDel, [](auto const & s) { return s->intfId(); })
        .collection("intfStatusLocal", [](S const & s) -> auto const & { return s.intfStatusLocal_; },
                    &S::intfStatusLocalIs, &S::intfStatusLocalDel, [](auto const & s) { return s->intfId(); })
        .scalar("initialized", &S::initialized)
        .callable("handleNsByName", [](S & s, Ovel::NamespaceName const & name) { s.handleNsByName(name); })
        .callable("doSyncIntfStatus", &S::doSyncIntfStatus);
  });
  return table;
}

// ---- nested reactors ----------------------------------------------------------------------------

class IntfStatusOperStatusSm::VornIntfStatusDir : public Vorn::Reactor<IntfStatusOperStatusSm, IntfStatusDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatus(Ovel::IntfId const & id) override { forward(&IntfStatusOperStatusSm::handleIntfStatus, id); }
  void onIntfStatusvornImmediate() override { forward(&IntfStatusOperStatusSm::handleIntfStatus); }
};

class IntfStatusOperStatusSm::VornIntfStatusLocalDir
    : public Vorn::Reactor<IntfStatusOperStatusSm, IntfStatusLocalDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusLocal(Ovel::IntfId const & id) override {
    forward(&IntfStatusOperStatusSm::handleIntfStatusLocal, id);
  }
  void onIntfStatusLocalvornImmediate() override { forward(&IntfStatusOperStatusSm::handleIntfStatusLocal); }
};

class IntfStatusOperStatusSm::VornNetNsCollection
    : public Vorn::Reactor<IntfStatusOperStatusSm, KernelNetNsInfo::Root> {
 public:
  using Reactor::Reactor;
  void onNetNsByName(Ovel::NamespaceName const & name) override {
    forward(&IntfStatusOperStatusSm::handleNsByName, name);
  }
  void onNetNsByNamevornImmediate() override { forward(&IntfStatusOperStatusSm::handleNsByNameOnBind); }
};

class IntfStatusOperStatusSm::VornKosm : public Vorn::Reactor<IntfStatusOperStatusSm, KernelOperStateManager> {
 public:
  using Reactor::Reactor;
  void onOperStateConvergence() override { forward(&IntfStatusOperStatusSm::handleOperStateConvergence); }
};

class IntfStatusOperStatusSm::VornClock : public Vorn::Reactor<IntfStatusOperStatusSm, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&IntfStatusOperStatusSm::handleShortageRetry); }
};

void IntfStatusOperStatusSm::VornIntfStatus::handleOperStatusOrDeviceName() {
  KOS_TRACE(8, "handleOperStatusOrDeviceName" << "( " << intfId_ << " )");
  owner()->doSyncIfInitialized(intfId_);
}

void IntfStatusOperStatusSm::VornIntfStatusLocal::handleNetNsName() {
  KOS_TRACE(8, "handleNetNsName" << "( " << intfId_ << " )");
  owner()->doSyncIfInitialized(intfId_);
}

// ---- the state machine ---------------------------------------------------------------------------

IntfStatusOperStatusSm::IntfStatusOperStatusSm(Vorn::Ptr<IntfStatusDir const> const & intfStatusDir,
                                               Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir,
                                               Vorn::Ptr<KernelOperStateManager> const & kosm,
                                               Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection)
    : intfStatusDir_(intfStatusDir),
      intfStatusLocalDir_(intfStatusLocalDir),
      kosm_(kosm),
      netNsCollection_(netNsCollection) {
  // Binding a directory reactor reconciles the per-interface reactors with what the directory holds.
  if (intfStatusDir_) intfStatusDirReactor_ = Vorn::reactorNew<VornIntfStatusDir>(this, intfStatusDir_);
  if (intfStatusLocalDir_) {
    intfStatusLocalDirReactor_ = Vorn::reactorNew<VornIntfStatusLocalDir>(this, intfStatusLocalDir_);
  }
  if (netNsCollection_) netNsCollectionReactor_ = Vorn::reactorNew<VornNetNsCollection>(this, netNsCollection_);
  if (kosm_) kosmReactor_ = Vorn::reactorNew<VornKosm>(this, kosm_);
  handleIntfStatus();
  handleIntfStatusLocal();
  handleInitialized();
}

IntfStatusOperStatusSm::~IntfStatusOperStatusSm() {
  vornDoZombieReactors(true);
  intfStatus_.delAll();
  intfStatusLocal_.delAll();
}

void IntfStatusOperStatusSm::vornDoZombieReactors(bool zombie) {
  intfStatus_.zombieIs(zombie);
  intfStatusLocal_.zombieIs(zombie);
  if (intfStatusDirReactor_) intfStatusDirReactor_->vornZombieIs(zombie);
  if (intfStatusLocalDirReactor_) intfStatusLocalDirReactor_->vornZombieIs(zombie);
  if (netNsCollectionReactor_) netNsCollectionReactor_->vornZombieIs(zombie);
  if (kosmReactor_) kosmReactor_->vornZombieIs(zombie);
  if (clockReactor_) clockReactor_->vornZombieIs(zombie);
}

void IntfStatusOperStatusSm::hasNotificationActiveIs(bool active) {
  if (notificationActive_ == active) return;
  notificationActive_ = active;
  intfStatus_.notificationActiveIs(active);
  intfStatusLocal_.notificationActiveIs(active);
  if (intfStatusDirReactor_) intfStatusDirReactor_->hasNotificationActiveIs(active);
  if (intfStatusLocalDirReactor_) intfStatusLocalDirReactor_->hasNotificationActiveIs(active);
  if (netNsCollectionReactor_) netNsCollectionReactor_->hasNotificationActiveIs(active);
  if (kosmReactor_) kosmReactor_->hasNotificationActiveIs(active);
  if (clockReactor_) clockReactor_->hasNotificationActiveIs(active);
}

void IntfStatusOperStatusSm::doSyncIfInitialized(Ovel::IntfId const & intfId) {
  if (initialized_) {
    doSyncIntfStatus(intfId);
  } else {
    KOS_TRACE(5, "Skipping because not initialized yet");
  }
}

Vorn::Ptr<IntfStatusOperStatusSm::VornIntfStatus> IntfStatusOperStatusSm::intfStatusIs(
    Vorn::Ptr<Interface::IntfStatus const> const & status) {
  if (!status) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusOperStatusSm"));
  }
  Ovel::IntfId const id = status->intfId();
  intfStatusReconciled(id, intfStatus_.reconcileKey(this, id, status));
  return intfStatus_.reactor(id);
}

void IntfStatusOperStatusSm::intfStatusDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;  // may be the key of the entry being removed
  if (intfStatus_.del(key)) intfStatusReconciled(key, Change::deleted);
}

Vorn::Ptr<IntfStatusOperStatusSm::VornIntfStatusLocal> IntfStatusOperStatusSm::intfStatusLocalIs(
    Vorn::Ptr<Interface::IntfStatusLocal const> const & status) {
  if (!status) {
    throw Vorn::RangeException(
        Vorn::nullParameterText("intfStatusLocal", "KernelOperState::IntfStatusOperStatusSm"));
  }
  Ovel::IntfId const id = status->intfId();
  intfStatusLocalReconciled(id, intfStatusLocal_.reconcileKey(this, id, status));
  return intfStatusLocal_.reactor(id);
}

void IntfStatusOperStatusSm::intfStatusLocalDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;
  if (intfStatusLocal_.del(key)) notify(&NotifieeConst::onIntfStatusLocal, key);
}

// A reactor created or deleted is a change of the collection; a rebound one is not.
void IntfStatusOperStatusSm::intfStatusReconciled(Ovel::IntfId const & id, Change change) {
  if (change == Change::deleted) decidedAtDel(id);
  if (change == Change::created || change == Change::deleted) notify(&NotifieeConst::onIntfStatus, id);
}

void IntfStatusOperStatusSm::decidedAtIs(Ovel::IntfId const & id, Ovel::NamespaceName const & ns,
                                         Vorn::String const & device) {
  auto [at, added] = decidedAt_.try_emplace(id, ns, device);
  if (!added) {
    if (at->second.first == ns && at->second.second == device) return;
    leaveDecidedAt(id);
    decidedAt_.emplace(id, std::pair(ns, device));
  }
  ++interfacesAt_[std::pair(ns, device)];
}

void IntfStatusOperStatusSm::decidedAtDel(Ovel::IntfId const & id) {
  if (decidedAt_.count(id)) leaveDecidedAt(id);
}

// Another interface that names the same device there keeps its decided state: the place is counted,
// so that a rename or a move of every interface costs no walk over all the others.
void IntfStatusOperStatusSm::leaveDecidedAt(Ovel::IntfId const & id) {
  auto const at = decidedAt_.find(id);
  std::pair<Ovel::NamespaceName, Vorn::String> const place = at->second;
  decidedAt_.erase(at);
  auto const count = interfacesAt_.find(place);
  if (count != interfacesAt_.end() && --count->second > 0) return;
  if (count != interfacesAt_.end()) interfacesAt_.erase(count);
  if (kosm_) kosm_->decidedOperStateDel(place.first, place.second);
}

void IntfStatusOperStatusSm::intfStatusLocalReconciled(Ovel::IntfId const & id, Change change) {
  if (change == Change::created || change == Change::deleted) notify(&NotifieeConst::onIntfStatusLocal, id);
}

void IntfStatusOperStatusSm::handleIntfStatus(Ovel::IntfId const & intfId) {
  Vorn::Ptr<Interface::IntfStatus const> status = intfStatusDir_ ? intfStatusDir_->intfStatus(intfId) : nullptr;
  intfStatusReconciled(intfId, intfStatus_.reconcileKey(this, intfId, status));
}

void IntfStatusOperStatusSm::handleIntfStatus() {
  if (!intfStatusDir_) return;
  intfStatus_.reconcile(
      this, intfStatusDir_->intfStatusIter(), [](auto const & status) { return status; },
      [this](Ovel::IntfId const & id, Change change) { intfStatusReconciled(id, change); });
}

void IntfStatusOperStatusSm::handleIntfStatusLocal(Ovel::IntfId const & intfId) {
  Vorn::Ptr<Interface::IntfStatusLocal const> status =
      intfStatusLocalDir_ ? intfStatusLocalDir_->intfStatusLocal(intfId) : nullptr;
  intfStatusLocalReconciled(intfId, intfStatusLocal_.reconcileKey(this, intfId, status));
}

void IntfStatusOperStatusSm::handleIntfStatusLocal() {
  if (!intfStatusLocalDir_) return;
  intfStatusLocal_.reconcile(
      this, intfStatusLocalDir_->intfStatusLocalIter(), [](auto const & status) { return status; },
      [this](Ovel::IntfId const & id, Change change) { intfStatusLocalReconciled(id, change); });
}

void IntfStatusOperStatusSm::handleInitialized() {
  KOS_TRACE(8, "handleInitialized");
  if (!initialized_) {
    initialized_ = true;
    notify(&NotifieeConst::onInitialized);
  }
  handleNsByName();
  if (!intfStatusDir_) return;
  for (auto const & e : intfStatusDir_->intfStatusIter()) doSyncIntfStatus(e.key);
}

void IntfStatusOperStatusSm::handleOperStateConvergence() {
  if (!initialized_ || !kosm_->operStateConvergence() || !intfStatusDir_) return;
  KOS_TRACE(8, "handleOperStateConvergence");
  for (auto const & e : intfStatusDir_->intfStatusIter()) doSyncIntfStatus(e.key);
}

void IntfStatusOperStatusSm::doSyncIntfStatus(Ovel::IntfId const & intfId) {
  KOS_TRACE(8, "doSyncIntfStatus" << "( " << intfId << " )");
  VORN_ASSERT(intfStatusDir());
  VORN_ASSERT(intfStatusLocalDir());
  Vorn::Ptr<Interface::IntfStatus const> status = intfStatusDir_->intfStatus(intfId);
  if (!status) return;
  // The default name is the shared one: a name made from its text here would cost an allocation per change.
  Ovel::NamespaceName ns = Ovel::NamespaceName::defaultNamespace();
  if (auto local = intfStatusLocalDir_->intfStatusLocal(intfId); local && !local->netNsName().empty()) {
    ns = local->netNsName();
  }
  decidedAtIs(intfId, ns, status->deviceName());
  kosm_->doSetOperStateInNs(status->deviceName(), status->operStatus(), ns);
}

void IntfStatusOperStatusSm::handleNsByName(Ovel::NamespaceName const & name) {
  KOS_TRACE(8, "IntfStatusOperStatusSm::" << "handleNsByName" << "(name=" << name << ")");
  Platform::Calls & platform = Platform::calls();
  if (netNsCollection_ && netNsCollection_->netNsByNameHas(name)) {
    int const sd = netlinkSocketOpen(name, "created netlink socket. Sd: ", true);
    if (sd < 0) {
      if (Vorn::isDescriptorShortage(errno)) shortageRetryIs(name);
      return;
    }
    shortOf_.erase(name);
    // Each presence notification opens a fresh socket on purpose (the name may stand for a namespace
    // made again); the one it replaces is closed once the fresh one is cached, or it would leak.
    int const replaced = kosm_->nsNetlinkSockFdHas(name) ? kosm_->nsNetlinkSockFd(name) : -1;
    kosm_->nsNetlinkSockFdIs(name, sd);
    if (replaced >= 0 && replaced != sd) {
      KOS_TRACE(8, "handleNsByName" << " closing replaced netlink socket: " << replaced);
      Vorn::descriptorClosed(replaced);
      platform.close(replaced);
    }
    if (initialized_ && !openingAll_ && kosm_->operStateConvergence() && intfStatusDir_) {
      for (auto const & e : intfStatusDir_->intfStatusIter()) {
        auto const local = intfStatusLocalDir_ ? intfStatusLocalDir_->intfStatusLocal(e.key) : nullptr;
        Ovel::NamespaceName const ns = local && !local->netNsName().empty() ? local->netNsName()
                                                                             : Ovel::NamespaceName(Ovel::DEFAULT_NS);
        if (ns == name) doSyncIntfStatus(e.key);
      }
    }
    return;
  }
  if (kosm_->nsNetlinkSockFdHas(name)) {
    int sd = kosm_->nsNetlinkSockFd(name);
    KOS_TRACE(8, "handleNsByName" << " closing netlink socket: " << sd);
    if (sd < 0) {
      std::cerr << "Failed(" << "sd >= 0" << ") " << " sd: " << sd << " ns name : " << name << std::endl;
      VORN_ASSERT(!"sd >= 0");
    }
    Vorn::descriptorClosed(sd);
    platform.close(sd);
    kosm_->nsNetlinkSockFdDel(name);
  } else {
    KOS_TRACE(8, "No cached netlink socket fd found. Just return");
  }
}

void IntfStatusOperStatusSm::shortageRetryIs(Ovel::NamespaceName const & name) {
  shortOf_.insert(name);
  if (!clockReactor_) clockReactor_ = Vorn::reactorNew<VornClock>(this, Vorn::activityManager().clock());
  if (clockReactor_->timeMin() == Vorn::Clock::never) {
    clockReactor_->timeMinIs(Vorn::System::currentTime() + shortageRetryInterval);
  }
}

void IntfStatusOperStatusSm::handleShortageRetry() {
  std::set<Ovel::NamespaceName> const names = std::exchange(shortOf_, {});
  bool opened = false;
  for (Ovel::NamespaceName const & name : names) {
    if (!netNsCollection_ || !netNsCollection_->netNsByNameHas(name) || kosm_->nsNetlinkSockFdHas(name)) continue;
    handleNsByName(name);
    opened = opened || kosm_->nsNetlinkSockFdHas(name);
  }
  if (!opened || !intfStatusDir_) return;
  KOS_TRACE(5, "netlink sockets opened after a shortage of descriptors: syncing every interface again");
  for (auto const & e : intfStatusDir_->intfStatusIter()) doSyncIntfStatus(e.key);
}

// Before the start-up sync has run, that sync opens the sockets; doing it on binding as well would open
// a second socket per namespace and lose the first.
void IntfStatusOperStatusSm::handleNsByNameOnBind() {
  if (initialized_) handleNsByName();
}

void IntfStatusOperStatusSm::handleNsByName() {
  KOS_TRACE(8, "IntfStatusOperStatusSm::" << "handleNsByName");
  if (!netNsCollection_) return;
  openingAll_ = true;
  for (auto const & e : netNsCollection_->netNsByNameIter()) handleNsByName(e.key);
  openingAll_ = false;
}

Vorn::Ptr<IntfStatusOperStatusSm> IntfStatusOperStatusSmIs(
    Vorn::Ptr<IntfStatusDir const> const & intfStatusDir,
    Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir, Vorn::Ptr<KernelOperStateManager> const & kosm,
    Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection) {
  return new IntfStatusOperStatusSm(intfStatusDir, intfStatusLocalDir, kosm, netNsCollection);
}

}  // namespace KernelOperState
