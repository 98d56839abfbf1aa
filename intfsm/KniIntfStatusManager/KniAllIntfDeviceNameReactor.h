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
// - Duplicated device names behave as in AllIntfDeviceNameReactor: the later interface wins the key.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The nested
// reactors keep the directories they watch alive (a bound notifiee holds its notifier).
#pragma once

#include <cstdint>

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

  // Watches one interface's deviceName.
  class VornIntfStatus : public Vorn::Reactor<KniAllIntfDeviceNameReactor, IntfStatus> {
   public:
    VornIntfStatus(KniAllIntfDeviceNameReactor * owner, Ovel::IntfId const & id) : Reactor(owner), intfId_(id) {}
    void onDeviceName() override { run(&VornIntfStatus::handleDeviceName); }
    void handleDeviceName();

   private:
    Ovel::IntfId intfId_;
  };

  // Watches one interface's netNsName.
  class VornIntfStatusLocal : public Vorn::Reactor<KniAllIntfDeviceNameReactor, IntfStatusLocal> {
   public:
    VornIntfStatusLocal(KniAllIntfDeviceNameReactor * owner, Ovel::IntfId const & id) : Reactor(owner), intfId_(id) {}
    void onNetNsName() override { run(&VornIntfStatusLocal::handleDeviceNetNs); }
    void handleDeviceNetNs();

   private:
    Ovel::IntfId intfId_;
  };

  ~KniAllIntfDeviceNameReactor() override;
  char const * vornTypeName() const override { return "Interface::KniAllIntfDeviceNameReactor"; }

  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.reactor(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  // Watches `status` for its interface (replacing the entity watched so far); null raises
  // Vorn::RangeException.
  void intfStatusIs(Vorn::Ptr<IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & id);

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return allIntfStatusDir_; }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const { return allIntfStatusLocalDir_; }
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

  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const {
    return intfStatusLocal_.reactor(id);
  }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local);
  void intfStatusLocalDel(Ovel::IntfId const & id);

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
  class VornAllIntfStatusDir;
  class VornAllIntfStatusLocalDir;
  class VornNetNsIntfStatusIndexDir;
  friend Vorn::Ptr<KniAllIntfDeviceNameReactor> kniAllIntfDeviceNameReactorFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &,
      Vorn::Ptr<NetNsIntfStatusIndexDir> const &, bool);

  KniAllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                              Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                              Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs);

  // What the directory reactors run: one key changed, or the whole directory is to be matched.
  void doIntfStatusChange(Ovel::IntfId const & intfId);
  void doIntfStatusReconcile(bool keyless);
  void doIntfStatusLocalChange(Ovel::IntfId const & intfId);
  void doIntfStatusLocalReconcile(bool keyless);
  // The index of namespace `ns`, or null.
  Vorn::Ptr<IntfStatusIndexDir> indexOf(Ovel::NamespaceName const & ns) const;

  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleDeviceName};
  Vorn::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Vorn::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDir_;
  bool filterByNetNs_;
  Vorn::Collection<Vorn::String, Vorn::Ptr<NetNsIntfIdMap>> netNsIntfIdMap_;
  Vorn::Collection<Ovel::IntfId, Ovel::NamespaceName> intfToNs_;
  Vorn::Collection<Ovel::IntfId, Vorn::String> intfStatusToDeviceName_;
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatusLocal> intfStatusLocal_{&VornIntfStatusLocal::handleDeviceNetNs};
  bool initialized_ = false;
  Vorn::Ptr<VornAllIntfStatusDir> allIntfStatusDirReactor_;
  Vorn::Ptr<VornAllIntfStatusLocalDir> allIntfStatusLocalDirReactor_;
  Vorn::Ptr<VornNetNsIntfStatusIndexDir> netNsIntfStatusIndexDirReactor_;
};

// Indexes every interface already in the directories before it returns (into the namespaces whose
// index exists; the others wait).
Vorn::Ptr<KniAllIntfDeviceNameReactor> kniAllIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs);

}  // namespace Interface
