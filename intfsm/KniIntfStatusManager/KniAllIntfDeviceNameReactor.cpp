#include "intfsm/KniIntfStatusManager/KniAllIntfDeviceNameReactor.h"

#include "intfsm/KniIntfStatusManager/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
using R = KniAllIntfDeviceNameReactor;
// A namespace's id map is created by its key alone: the value given to set is not used.
Vorn::AttributeTableOf<R> const attributes("Interface::KniAllIntfDeviceNameReactor", [](auto & t) {
  auto intfIdOf = [](auto const & s) { return s->intfId(); };
  t.collection("intfStatus", &R::intfStatusIter, &R::intfStatusIs, &R::intfStatusDel, intfIdOf)
      .scalar("allIntfStatusDir", &R::allIntfStatusDir)
      .scalar("allIntfStatusLocalDir", &R::allIntfStatusLocalDir)
      .scalar("netNsIntfStatusIndexDir", &R::netNsIntfStatusIndexDir)
      .scalar("filterByNetNs", &R::filterByNetNs)
      .collection("netNsIntfIdMap", &R::netNsIntfIdMapIter,
                  [](R & r, Vorn::String const & ns, Vorn::Value const &) { r.netNsIntfIdMapIs(ns); },
                  &R::netNsIntfIdMapDel)
      .collection("intfToNs", &R::intfToNsIter, nullptr, nullptr)
      .collection("intfStatusToDeviceName", &R::intfStatusToDeviceNameIter, nullptr, nullptr)
      .collection("intfStatusLocal", &R::intfStatusLocalIter, &R::intfStatusLocalIs, &R::intfStatusLocalDel, intfIdOf)
      .scalar("initialized", &R::initialized);
});
Intfsm::TypeRegistration registration("Interface::KniAllIntfDeviceNameReactor", nullptr, attributes);

constexpr char handleDeviceNameText[] = "void Interface::KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId)";
}  // namespace

class KniAllIntfDeviceNameReactor::VornNetNsIntfStatusIndexDir
    : public Vorn::Reactor<KniAllIntfDeviceNameReactor, NetNsIntfStatusIndexDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusIndexDir(Vorn::Name const & name) override {
    forward(&KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir, name);
  }
};

Brisklog::Handle & KniAllIntfDeviceNameReactor::vornTrace() { return kniIntfStatusManagerTrace; }

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
    : Entity(Vorn::Name()), netNsIntfStatusIndexDir_(netNsIntfStatusIndexDir), filterByNetNs_(filterByNetNs) {
  if (!netNsIntfStatusIndexDir_) {
    throw Vorn::RangeException(
        Vorn::nullParameterText("netNsIntfStatusIndexDir", "Interface::KniAllIntfDeviceNameReactor"));
  }
  // Watching the index collection delivers nothing on binding, so it may start before the interfaces.
  netNsIntfStatusIndexDirReactor_ = Vorn::reactorNew<VornNetNsIntfStatusIndexDir>(this, netNsIntfStatusIndexDir_);
  watcher_.start(allIntfStatusDir, allIntfStatusLocalDir);
  handleInitialized();
}

KniAllIntfDeviceNameReactor::~KniAllIntfDeviceNameReactor() {
  watcher_.retire();
  Vorn::reactorRetire(*netNsIntfStatusIndexDirReactor_);
}

void KniAllIntfDeviceNameReactor::vornDoZombieReactors(bool zombie) {
  watcher_.zombieIs(zombie);
  netNsIntfStatusIndexDirReactor_->vornZombieIs(zombie);
}

void KniAllIntfDeviceNameReactor::handleInitialized() {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleInitialized()");
  if (initialized_) return;
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
}

Vorn::Ptr<NetNsIntfIdMap> KniAllIntfDeviceNameReactor::netNsIntfIdMapIs(Vorn::String const & nsName) {
  if (Vorn::Ptr<NetNsIntfIdMap> existing = netNsIntfIdMap_.get(nsName)) return existing;
  Vorn::Ptr<NetNsIntfIdMap> created = netNsIntfIdMapFactory(Vorn::Name(nsName));
  setEntry(netNsIntfIdMap_, nsName, created, &NotifieeConst::onNetNsIntfIdMap);
  return created;
}

void KniAllIntfDeviceNameReactor::netNsIntfIdMapDel(Vorn::String const & nsName) {
  delEntry(netNsIntfIdMap_, nsName, &NotifieeConst::onNetNsIntfIdMap);
}

Vorn::Ptr<IntfStatusIndexDir> KniAllIntfDeviceNameReactor::indexOf(Ovel::NamespaceName const & ns) const {
  return netNsIntfStatusIndexDir_->intfStatusIndexDir(Vorn::Name(ns.name()));
}

void KniAllIntfDeviceNameReactor::unindex(Ovel::IntfId const & intfId, Ovel::NamespaceName const & ns,
                                          Vorn::String const & name) {
  auto const claims = claims_.find(ns.name().stdString());
  if (claims != claims_.end()) {
    claims->second.unclaim(indexOf(ns).ptr(), name, intfId);
    if (claims->second.empty()) claims_.erase(claims);
  }
  delEntry(intfStatusToDeviceName_, intfId, &NotifieeConst::onIntfStatusToDeviceName);
}

Ovel::NamespaceName KniAllIntfDeviceNameReactor::wantIs(Ovel::IntfId const & intfId, uint64_t * seq) {
  Vorn::Ptr<IntfStatus const> const status = watcher_.status(intfId);
  Vorn::Ptr<IntfStatusLocal const> const local = watcher_.local(intfId);
  Ovel::NamespaceName intfNsName = Ovel::NamespaceName::defaultNamespace();
  if (local && !local->netNsName().empty() && filterByNetNs_) intfNsName = local->netNsName();
  Vorn::String const cur = status ? status->deviceName() : Vorn::String();
  if (cur.empty()) {
    wants_.del(intfId);
  } else if (uint64_t const s = wants_.seqIs(intfId, intfNsName, cur); seq) {
    *seq = s;
  }
  return intfNsName;
}

void KniAllIntfDeviceNameReactor::handleIntfStatus() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void KniAllIntfDeviceNameReactor::handleIntfStatusLocal() { VORN_ASSERT(intf()->intfStatuss() == 0); }

void KniAllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId const & intfId) {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleIntfStatus(Ovel::IntfId)"
                     << " for " << intfId << " filterByNetNs: " << filterByNetNs_);
  wantIs(intfId, nullptr);
  if (watcher_.status(intfId)) {
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
  wantIs(intfId, nullptr);
  if (watcher_.local(intfId)) {
    KNISM_TRACE(3, intfId << "local status was added");
  } else if (!intfStatusToDeviceName(intfId).empty() || watcher_.status(intfId)) {
    KNISM_TRACE(3, intfId << " local status was removed");
  } else {
    return;
  }
  handleDeviceName(intfId);
}

void KniAllIntfDeviceNameReactor::handleDeviceName(Ovel::IntfId const & intfId) {
  KNISM_TRACE(3, handleDeviceNameText << " for " << intfId << " filterByNetNs: " << filterByNetNs_);
  Vorn::Ptr<IntfStatus const> const status = watcher_.status(intfId);
  uint64_t seq = 0;
  Ovel::NamespaceName const intfNsName = wantIs(intfId, &seq);
  Ovel::NamespaceName const prevNsName = intfToNs(intfId).orDefault();
  bool const moved = !(prevNsName == intfNsName);
  KNISM_TRACE(3, handleDeviceNameText << "interface " << intfId << " prevNsName is " << '"' << prevNsName << '"'
                                      << " intfNsName is " << '"' << intfNsName << '"');

  Vorn::Ptr<IntfStatusIndexDir> dir = indexOf(intfNsName);
  Vorn::Ptr<NetNsIntfIdMap> const ids = netNsIntfIdMapIs(intfNsName.name());
  Vorn::String prev = intfStatusToDeviceName(intfId);
  Ovel::NamespaceName fileNs = intfNsName;
  if (dir) {
    if (moved) {
      if (Vorn::Ptr<NetNsIntfIdMap> const prevIds = netNsIntfIdMap(prevNsName.name())) prevIds->intfDel(intfId);
    }
    setEntry(intfToNs_, intfId, intfNsName, &NotifieeConst::onIntfToNs);
  } else {
    ids->intfIs(intfId, true);
    KNISM_TRACE(3, handleDeviceNameText << " no intfStatusDir created for " << intfNsName);
    // Waits for its namespace's index, filed meanwhile where it was; when that index is gone too, it
    // is not filed anywhere.
    dir = prev.empty() ? nullptr : indexOf(prevNsName);
    if (!dir) {
      if (!prev.empty()) unindex(intfId, prevNsName, prev);
      if (moved) {
        if (Vorn::Ptr<NetNsIntfIdMap> const prevIds = netNsIntfIdMap(prevNsName.name())) prevIds->intfDel(intfId);
      }
      return;
    }
    fileNs = prevNsName;
  }

  if (!prev.empty() && !(prevNsName == fileNs)) {
    if (Vorn::Ptr<IntfStatusIndexDir> const prevDir = indexOf(prevNsName)) {
      KNISM_TRACE(0, "Removing intf " << intfId << " from prevDir " << prevDir->name());
    }
    unindex(intfId, prevNsName, prev);
    prev = Vorn::String();
  }
  Vorn::String const cur = status ? status->deviceName() : Vorn::String();
  if (!cur.empty()) {
    if (!prev.empty() && !(prev == cur)) {
      KNISM_TRACE(0, "Deleting intf " << prev << "->" << intfId << " in " << dir->name());
      claims_[fileNs.name().stdString()].unclaim(dir.ptr(), prev, intfId);
    }
    KNISM_TRACE(0, "Adding intf " << cur << "->" << intfId << " in " << dir->name());
    claims_[fileNs.name().stdString()].claim(dir.ptr(), cur, status, seq);
    setEntry(intfStatusToDeviceName_, intfId, cur, &NotifieeConst::onIntfStatusToDeviceName);
    netNsIntfIdMapIs(fileNs.name())->intfIs(intfId, true);
    return;
  }
  if (prev.empty()) return;
  KNISM_TRACE(0, "Removing intf " << intfId << " from " << dir->name());
  unindex(intfId, fileNs, prev);
  netNsIntfIdMapIs(fileNs.name())->intfDel(intfId);
}

void KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir(Vorn::String const & nsName) {
  KNISM_TRACE(3, "void Interface::KniAllIntfDeviceNameReactor::handleNetNsIntfStatusIndexDir(Vorn::String)"
                     << " for " << nsName << " filterByNetNs: " << filterByNetNs_);
  Vorn::Ptr<NetNsIntfIdMap> const ids = netNsIntfIdMap(nsName);
  if (!ids) return;
  for (auto const & e : ids->intfIter()) handleDeviceName(Ovel::IntfId(e.key));
}

}  // namespace Interface
