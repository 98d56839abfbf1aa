// The device-name index of every network namespace at once: files each interface that has a device
// name into the index (a member of a NetNsIntfStatusIndexDir) of its own namespace, and moves the entry
// when the interface changes namespace. NetNsIntfStatusManagerRoot makes one (`isbdn`); the index of a
// namespace is the `kernelIntfDir` of that namespace's KniIntfStatusManager.
//
//   auto all = Interface::netNsIntfStatusIndexDirFactory("nsisid");
//   auto r = Interface::kniAllIntfDeviceNameReactorFactory(allIntfStatus, allIntfStatusLocal, all, true);
//   all->intfStatusIndexDirIs(Interface::intfStatusIndexDirFactory("blue"));  // blue's interfaces land in it
//
// Rules worth knowing:
// - Without filterByNetNs every interface is filed under the default namespace (DEFAULT_NS); with it, an
//   interface goes where its IntfStatusLocal's netNsName says (empty: the default namespace).
// - An interface whose namespace has no index yet waits in `netNsIntfIdMap` (and stays in the index it
//   was in) until the index is added; then it is filed, and removed from its previous namespace's index.
// - Duplicated device names behave as in AllIntfDeviceNameReactor, per namespace: the interface that
//   started reporting the name later holds the key, the other waits behind it and gets the name back
//   when the holder leaves it (rather than the key going while an interface still reports it).
// - An interface that moves to a namespace without an index stays filed in its previous namespace's
//   index, and there it keeps following its device name and its status (a rename or a deleted status
//   while it waits is not left behind as a stale entry). When that previous index goes too, the
//   interface is simply not indexed until its own namespace's index comes.
// - A local status that goes is handled also for an interface that is not indexed but has a status:
//   it was waiting for its namespace's index, and now belongs in the default namespace's.
// - A move takes only the interface's own claim out of the old index; it never deletes its old device
//   name from the new namespace's index, where that name may be another interface's entry.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The nested
// reactors keep the directories they watch alive (a bound notifiee holds its notifier).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "intfsm/IntfByDevice/DeviceNameClaims.h"
#include "intfsm/IntfByDevice/IntfStatusWatcher.h"
#include "intfsm/IntfByDevice/NetNsIntfStatusIndexDir.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfIdMap.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

class KniAllIntfDeviceNameReactor : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<KniAllIntfDeviceNameReactor> {
   public:
    virtual void onNetNsIntfIdMap(Vorn::String const &) {}
    virtual void onIntfToNs(Ovel::IntfId const &) {}
    virtual void onIntfStatusToDeviceName(Ovel::IntfId const &) {}
    virtual void onInitialized() {}
  };

  using Watcher = IntfStatusWatcher<KniAllIntfDeviceNameReactor>;
  using VornIntfStatus = Watcher::VornIntfStatus;
  using VornIntfStatusLocal = Watcher::VornIntfStatusLocal;
  static constexpr char const * vornIntfStatusText =
      "void Interface::KniAllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName()";
  static constexpr char const * vornIntfStatusLocalText =
      "void Interface::KniAllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs()";
  static Brisklog::Handle & vornTrace();

  ~KniAllIntfDeviceNameReactor() override;
  char const * vornTypeName() const override { return "Interface::KniAllIntfDeviceNameReactor"; }

  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return watcher_.intfStatus(id); }
  uint32_t intfStatuss() const { return watcher_.intfStatuss(); }
  // Watches `status` for its interface (replacing the entity watched so far); null raises
  // Vorn::RangeException.
  void intfStatusIs(Vorn::Ptr<IntfStatus const> const & status) { watcher_.intfStatusIs(status); }
  void intfStatusDel(Ovel::IntfId const & id) { watcher_.intfStatusDel(id); }

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return watcher_.allIntfStatusDir(); }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const {
    return watcher_.allIntfStatusLocalDir();
  }
  Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir() const { return netNsIntfStatusIndexDir_; }
  bool filterByNetNs() const { return filterByNetNs_; }

  // The interfaces known to be in namespace `nsName`; null when none ever were.
  Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMap(Vorn::String const & nsName) const { return netNsIntfIdMap_.get(nsName); }
  uint32_t netNsIntfIdMaps() const { return netNsIntfIdMap_.size(); }
  // The map of `nsName`, made when there is none.
  Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMapIs(Vorn::String const & nsName);
  void netNsIntfIdMapDel(Vorn::String const & nsName);

  // The namespace the interface was last filed under; empty when never.
  Ovel::NamespaceName intfToNs(Ovel::IntfId const & id) const { return intfToNs_.get(id); }
  // The device name under which the interface is indexed; empty when it is not.
  Vorn::String intfStatusToDeviceName(Ovel::IntfId const & id) const { return intfStatusToDeviceName_.get(id); }
  uint32_t intfStatusToDeviceNames() const { return intfStatusToDeviceName_.size(); }
  auto const & intfStatusToDeviceNameIter() const { return intfStatusToDeviceName_; }
  auto const & intfToNsIter() const { return intfToNs_; }
  auto const & netNsIntfIdMapIter() const { return netNsIntfIdMap_; }
  auto const & intfStatusIter() const { return watcher_.intfStatusIter(); }
  auto const & intfStatusLocalIter() const { return watcher_.intfStatusLocalIter(); }

  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const {
    return watcher_.intfStatusLocal(id);
  }
  uint32_t intfStatusLocals() const { return watcher_.intfStatusLocals(); }
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local) { watcher_.intfStatusLocalIs(local); }
  void intfStatusLocalDel(Ovel::IntfId const & id) { watcher_.intfStatusLocalDel(id); }

  bool initialized() const { return initialized_; }

  void handleDeviceName(Ovel::IntfId const & intfId);
  void handleIntfStatus();
  void handleIntfStatus(Ovel::IntfId const & intfId);
  void handleIntfStatusLocal();
  void handleIntfStatusLocal(Ovel::IntfId const & intfId);
  void handleNetNsIntfStatusIndexDir(Vorn::String const & nsName);
  void handleInitialized();

  void vornDoZombieReactors(bool zombie);

 private:
  class VornNetNsIntfStatusIndexDir;
  friend Vorn::Ptr<KniAllIntfDeviceNameReactor> kniAllIntfDeviceNameReactorFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &,
      Vorn::Ptr<NetNsIntfStatusIndexDir> const &, bool);

  KniAllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                              Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                              Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs);

  // What the key-less handlers check, as one index of every namespace: the interfaces filed anywhere.
  struct FiledIntfs {
    KniAllIntfDeviceNameReactor const * reactor;
    uint32_t intfStatuss() const { return reactor->intfStatusToDeviceNames(); }
    FiledIntfs const * operator->() const { return this; }
  };
  FiledIntfs intf() const { return FiledIntfs{this}; }
  // The index of namespace `ns`, or null.
  Vorn::Ptr<IntfStatusIndexDir> indexOf(Ovel::NamespaceName const & ns) const;
  // Takes the interface's claim on `name` in namespace `ns` back (the name passes to the next claimant
  // there, when the index still exists) and forgets its device name.
  void unindex(Ovel::IntfId const & intfId, Ovel::NamespaceName const & ns, Vorn::String const & name);
  // The namespace the interface belongs in now; notes when it started reporting that namespace and
  // its device name (the age of its claim, given in `seq` when not null).
  Ovel::NamespaceName wantIs(Ovel::IntfId const & intfId, uint64_t * seq);

  Watcher watcher_{this};
  Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDir_;
  bool filterByNetNs_;
  Vorn::Collection<Vorn::String, Vorn::Ptr<NetNsIntfIdMap>> netNsIntfIdMap_;
  Vorn::Collection<Ovel::IntfId, Ovel::NamespaceName> intfToNs_;
  Vorn::Collection<Ovel::IntfId, Vorn::String> intfStatusToDeviceName_;
  bool initialized_ = false;
  std::map<std::string, DeviceNameClaims> claims_;  // per namespace
  DeviceNameWants wants_;
  Vorn::Ptr<VornNetNsIntfStatusIndexDir> netNsIntfStatusIndexDirReactor_;
};

// Indexes every interface already in the directories before it returns (into the namespaces whose
// index exists; the others wait).
Vorn::Ptr<KniAllIntfDeviceNameReactor> kniAllIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs);

}  // namespace Interface
