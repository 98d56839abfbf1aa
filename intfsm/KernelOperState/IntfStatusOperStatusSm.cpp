#include "intfsm/KernelOperState/IntfStatusOperStatusSm.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstdio>
#include <iostream>

#include "intfsm/KernelOperState/internal/Trace.h"
#include "intfsm/foundation/vorn/Fperror.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {
Intfsm::TypeRegistration registration("KernelOperState::IntfStatusOperStatusSm", nullptr,
                                    {"intfStatusDir", "intfStatusLocalDir", "kosm", "netNsCollection", "intfStatus",
                                     "intfStatusLocal", "initialized", "handleNsByName", "doSyncIntfStatus"});
}  // namespace

// ---- nested reactors on the three inputs ---------------------------------------------------------

class IntfStatusOperStatusSm::VornIntfStatusDir : public IntfStatusDir::NotifieeConst {
 public:
  VornIntfStatusDir(Vorn::Ptr<IntfStatusDir const> const & dir, IntfStatusOperStatusSm * owner) : owner_(owner) {
    notifierIs(dir);
  }
  void onIntfStatus(Ovel::IntfId const & id) override {
    if (vornMarkedForDeletion()) return;
    owner_->handleIntfStatus(id);
  }
  void onIntfStatusvornImmediate() override {
    if (vornMarkedForDeletion()) return;
    owner_->handleIntfStatus();
  }

 private:
  IntfStatusOperStatusSm * owner_;
};

class IntfStatusOperStatusSm::VornIntfStatusLocalDir : public IntfStatusLocalDir::NotifieeConst {
 public:
  VornIntfStatusLocalDir(Vorn::Ptr<IntfStatusLocalDir const> const & dir, IntfStatusOperStatusSm * owner)
      : owner_(owner) {
    notifierIs(dir);
  }
  void onIntfStatusLocal(Ovel::IntfId const & id) override {
    if (vornMarkedForDeletion()) return;
    owner_->handleIntfStatusLocal(id);
  }
  void onIntfStatusLocalvornImmediate() override {
    if (vornMarkedForDeletion()) return;
    owner_->handleIntfStatusLocal();
  }

 private:
  IntfStatusOperStatusSm * owner_;
};

class IntfStatusOperStatusSm::VornNetNsCollection : public KernelNetNsInfo::Root::NotifieeConst {
 public:
  VornNetNsCollection(Vorn::Ptr<KernelNetNsInfo::Root const> const & root, IntfStatusOperStatusSm * owner)
      : owner_(owner) {
    notifierIs(root);
  }
  void onNetNsByName(Ovel::NamespaceName const & name) override {
    if (vornMarkedForDeletion()) return;
    owner_->handleNsByName(name);
  }
  void onNetNsByNamevornImmediate() override {
    if (vornMarkedForDeletion()) return;
    // Before the start-up sync has run, that sync opens the sockets; doing it here as well would open
    // a second socket per namespace and lose the first.
    if (owner_->initialized()) owner_->handleNsByName();
  }

 private:
  IntfStatusOperStatusSm * owner_;
};

// ---- per-interface reactors ----------------------------------------------------------------------

IntfStatusOperStatusSm::VornIntfStatus::VornIntfStatus(Vorn::Ptr<Interface::IntfStatus const> const & status,
                                                       IntfStatusOperStatusSm * owner)
    : owner_(owner), intfId_(status->intfId()) {
  notifierIs(status);
  handleOperStatusOrDeviceName();
}

void IntfStatusOperStatusSm::VornIntfStatus::onOperStatus() {
  if (vornMarkedForDeletion()) return;
  handleOperStatusOrDeviceName();
}

void IntfStatusOperStatusSm::VornIntfStatus::onDeviceName() {
  if (vornMarkedForDeletion()) return;
  handleOperStatusOrDeviceName();
}

void IntfStatusOperStatusSm::VornIntfStatus::handleOperStatusOrDeviceName() {
  KOS_TRACE(8, "handleOperStatusOrDeviceName" << "( " << intfId_ << " )");
  owner_->doSyncIfInitialized(intfId_);
}

IntfStatusOperStatusSm::VornIntfStatusLocal::VornIntfStatusLocal(
    Vorn::Ptr<Interface::IntfStatusLocal const> const & status, IntfStatusOperStatusSm * owner)
    : owner_(owner), intfId_(status->intfId()) {
  notifierIs(status);
  handleNetNsName();
}

void IntfStatusOperStatusSm::VornIntfStatusLocal::onNetNsName() {
  if (vornMarkedForDeletion()) return;
  handleNetNsName();
}

void IntfStatusOperStatusSm::VornIntfStatusLocal::handleNetNsName() {
  KOS_TRACE(8, "handleNetNsName" << "( " << intfId_ << " )");
  owner_->doSyncIfInitialized(intfId_);
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
  if (intfStatusDir_) intfStatusDirReactor_ = new VornIntfStatusDir(intfStatusDir_, this);
  if (intfStatusLocalDir_) intfStatusLocalDirReactor_ = new VornIntfStatusLocalDir(intfStatusLocalDir_, this);
  if (netNsCollection_) netNsCollectionReactor_ = new VornNetNsCollection(netNsCollection_, this);
  handleIntfStatus();
  handleIntfStatusLocal();
  handleInitialized();
}

IntfStatusOperStatusSm::~IntfStatusOperStatusSm() {
  vornDoZombieReactors(true);
  while (Ovel::IntfId const * key = intfStatus_.anyKey()) intfStatus_.del(Ovel::IntfId(*key));
  while (Ovel::IntfId const * key = intfStatusLocal_.anyKey()) intfStatusLocal_.del(Ovel::IntfId(*key));
}

void IntfStatusOperStatusSm::vornDoZombieReactors(bool zombie) {
  for (auto const & e : intfStatus_) e.value->vornZombieIs(zombie);
  for (auto const & e : intfStatusLocal_) e.value->vornZombieIs(zombie);
  if (intfStatusDirReactor_) intfStatusDirReactor_->vornZombieIs(zombie);
  if (intfStatusLocalDirReactor_) intfStatusLocalDirReactor_->vornZombieIs(zombie);
  if (netNsCollectionReactor_) netNsCollectionReactor_->vornZombieIs(zombie);
}

void IntfStatusOperStatusSm::hasNotificationActiveIs(bool active) {
  if (notificationActive_ == active) return;
  notificationActive_ = active;
  for (auto const & e : intfStatus_) e.value->hasNotificationActiveIs(active);
  for (auto const & e : intfStatusLocal_) e.value->hasNotificationActiveIs(active);
  if (intfStatusDirReactor_) intfStatusDirReactor_->hasNotificationActiveIs(active);
  if (intfStatusLocalDirReactor_) intfStatusLocalDirReactor_->hasNotificationActiveIs(active);
  if (netNsCollectionReactor_) netNsCollectionReactor_->hasNotificationActiveIs(active);
}

// The reactor of `status`'s interface in `reactors`: created for a new interface, rebound when the
// directory holds another entity for it. Creating and rebinding both run the reactor's handler.
template <class Reactor, class Entity, class N>
Vorn::Ptr<Reactor> IntfStatusOperStatusSm::reactorIs(Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Reactor>> & reactors,
                                                     Vorn::Ptr<Entity const> const & status,
                                                     void (Reactor::*handler)(),
                                                     void (N::*callback)(Ovel::IntfId const &)) {
  Ovel::IntfId const id = status->intfId();
  Vorn::Ptr<Reactor> reactor = reactors.get(id);
  if (reactor) {
    if (reactor->notifier() == status) return reactor;
    reactor->notifierIs(status);
    (reactor.ptr()->*handler)();
    return reactor;
  }
  reactor = new Reactor(status, this);
  reactor->hasNotificationActiveIs(notificationActive_);
  setEntry(reactors, id, reactor, callback);
  return reactor;
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
  return reactorIs(intfStatus_, status, &VornIntfStatus::handleOperStatusOrDeviceName, &NotifieeConst::onIntfStatus);
}

void IntfStatusOperStatusSm::intfStatusDel(Ovel::IntfId const & id) {
  delEntry(intfStatus_, id, &NotifieeConst::onIntfStatus);
}

Vorn::Ptr<IntfStatusOperStatusSm::VornIntfStatusLocal> IntfStatusOperStatusSm::intfStatusLocalIs(
    Vorn::Ptr<Interface::IntfStatusLocal const> const & status) {
  if (!status) {
    throw Vorn::RangeException(
        Vorn::nullParameterText("intfStatusLocal", "KernelOperState::IntfStatusOperStatusSm"));
  }
  return reactorIs(intfStatusLocal_, status, &VornIntfStatusLocal::handleNetNsName,
                   &NotifieeConst::onIntfStatusLocal);
}

void IntfStatusOperStatusSm::intfStatusLocalDel(Ovel::IntfId const & id) {
  delEntry(intfStatusLocal_, id, &NotifieeConst::onIntfStatusLocal);
}

void IntfStatusOperStatusSm::handleIntfStatus(Ovel::IntfId const & intfId) {
  Vorn::Ptr<Interface::IntfStatus const> status = intfStatusDir_ ? intfStatusDir_->intfStatus(intfId) : nullptr;
  if (status) {
    intfStatusIs(status);
  } else {
    intfStatusDel(intfId);
  }
}

void IntfStatusOperStatusSm::handleIntfStatus() {
  if (!intfStatusDir_) return;
  for (auto const & e : intfStatusDir_->intfStatusIter()) intfStatusIs(e.value);
  for (auto const & e : intfStatus_) {
    if (!intfStatusDir_->intfStatus(e.key)) intfStatusDel(e.key);
  }
}

void IntfStatusOperStatusSm::handleIntfStatusLocal(Ovel::IntfId const & intfId) {
  Vorn::Ptr<Interface::IntfStatusLocal const> status =
      intfStatusLocalDir_ ? intfStatusLocalDir_->intfStatusLocal(intfId) : nullptr;
  if (status) {
    intfStatusLocalIs(status);
  } else {
    intfStatusLocalDel(intfId);
  }
}

void IntfStatusOperStatusSm::handleIntfStatusLocal() {
  if (!intfStatusLocalDir_) return;
  for (auto const & e : intfStatusLocalDir_->intfStatusLocalIter()) intfStatusLocalIs(e.value);
  for (auto const & e : intfStatusLocal_) {
    if (!intfStatusLocalDir_->intfStatusLocal(e.key)) intfStatusLocalDel(e.key);
  }
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

void IntfStatusOperStatusSm::doSyncIntfStatus(Ovel::IntfId const & intfId) {
  KOS_TRACE(8, "doSyncIntfStatus" << "( " << intfId << " )");
  VORN_ASSERT(intfStatusDir());
  VORN_ASSERT(intfStatusLocalDir());
  Vorn::Ptr<Interface::IntfStatus const> status = intfStatusDir_->intfStatus(intfId);
  if (!status) return;
  Ovel::NamespaceName ns(Ovel::DEFAULT_NS);
  if (auto local = intfStatusLocalDir_->intfStatusLocal(intfId); local && !local->netNsName().empty()) {
    ns = local->netNsName();
  }
  kosm_->doSetOperStateInNs(status->deviceName(), status->operStatus(), ns);
}

void IntfStatusOperStatusSm::handleNsByName(Ovel::NamespaceName const & name) {
  KOS_TRACE(8, "IntfStatusOperStatusSm::" << "handleNsByName" << "(name=" << name << ")");
  Platform::Calls & platform = Platform::calls();
  if (netNsCollection_ && netNsCollection_->netNsByNameHas(name)) {
    int sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, name.charPtr());
    KOS_TRACE(8, "created netlink socket. Sd: " << sd);
    if (sd < 0) {
      if (name.isDefault()) fperror("socket");
      perror("socket");
      return;
    }
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    KOS_TRACE(8, "Binding to socket. Sd: " << sd);
    int rc = platform.bind(sd, reinterpret_cast<sockaddr const *>(&addr), sizeof addr);
    if (rc < 0) {
      KOS_TRACE(8, "Bind error: " << rc);
      fperror("bind");
    }
    // A socket already cached for this name is replaced, not closed: each presence notification opens
    // a fresh one on purpose.
    kosm_->nsNetlinkSockFdIs(name, sd);
    return;
  }
  if (kosm_->nsNetlinkSockFdHas(name)) {
    int sd = kosm_->nsNetlinkSockFd(name);
    KOS_TRACE(8, "handleNsByName" << " closing netlink socket: " << sd);
    if (sd < 0) {
      std::cerr << "Failed(" << "sd >= 0" << ") " << " sd: " << sd << " ns name : " << name << std::endl;
      VORN_ASSERT(sd >= 0);
    }
    platform.close(sd);
    kosm_->nsNetlinkSockFdDel(name);
  } else {
    KOS_TRACE(8, "No cached netlink socket fd found. Just return");
  }
}

void IntfStatusOperStatusSm::handleNsByName() {
  KOS_TRACE(8, "IntfStatusOperStatusSm::" << "handleNsByName");
  if (!netNsCollection_) return;
  for (auto const & e : netNsCollection_->netNsByNameIter()) handleNsByName(e.key);
}

}  // namespace KernelOperState
