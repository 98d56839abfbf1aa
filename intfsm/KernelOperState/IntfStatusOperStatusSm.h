// Keeps the kernel's operational state of every interface device equal to the operational status
// that the switch holds for the interface.
//
// Inputs: the interface statuses (device name and operStatus), the local statuses (the namespace of
// each device) and the namespaces that exist. A change of operStatus, device name or namespace, or a
// status or local status inserted or replaced, resyncs that interface through the oper-state manager.
// A namespace that appears gets a fresh cached netlink socket in the manager; one that disappears has
// its cached socket closed and removed.
//
// Created (by the oper-state root) with all four inputs; construction ends with the start-up sync.
#pragma once

#include "intfsm/KernelOperState/IntfStatusDir.h"
#include "intfsm/KernelOperState/KernelOperStateManager.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Notifier.h"

namespace KernelOperState {

class IntfStatusOperStatusSm : public Vorn::Notifier {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatusOperStatusSm> {
   public:
    virtual void onInitialized() {}
    virtual void onIntfStatus(Ovel::IntfId const &) {}
    virtual void onIntfStatusLocal(Ovel::IntfId const &) {}
  };

  // Watches one interface's status: operStatus and deviceName.
  class VornIntfStatus : public Interface::IntfStatus::NotifieeConst {
   public:
    VornIntfStatus(Vorn::Ptr<Interface::IntfStatus const> const & status, IntfStatusOperStatusSm * owner);
    Ovel::IntfId const & intfId() const { return intfId_; }
    void onOperStatus() override;
    void onDeviceName() override;
    void handleOperStatusOrDeviceName();

   private:
    IntfStatusOperStatusSm * owner_;  // the owner outlives its reactors (zombied first on destruction)
    Ovel::IntfId intfId_;
  };

  // Watches one interface's local status: netNsName.
  class VornIntfStatusLocal : public Interface::IntfStatusLocal::NotifieeConst {
   public:
    VornIntfStatusLocal(Vorn::Ptr<Interface::IntfStatusLocal const> const & status, IntfStatusOperStatusSm * owner);
    Ovel::IntfId const & intfId() const { return intfId_; }
    void onNetNsName() override;
    void handleNetNsName();

   private:
    IntfStatusOperStatusSm * owner_;
    Ovel::IntfId intfId_;
  };

  IntfStatusOperStatusSm(Vorn::Ptr<IntfStatusDir const> const & intfStatusDir,
                         Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir,
                         Vorn::Ptr<KernelOperStateManager> const & kosm,
                         Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection);
  ~IntfStatusOperStatusSm() override;

  Vorn::Ptr<IntfStatusDir const> const & intfStatusDir() const { return intfStatusDir_; }
  Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir() const { return intfStatusLocalDir_; }
  Vorn::Ptr<KernelOperStateManager> const & kosm() const { return kosm_; }
  Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection() const { return netNsCollection_; }
  bool initialized() const { return initialized_; }

  // The per-interface reactors.
  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.get(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  Vorn::Ptr<VornIntfStatus> intfStatusIs(Vorn::Ptr<Interface::IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & id);
  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const { return intfStatusLocal_.get(id); }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocalIs(Vorn::Ptr<Interface::IntfStatusLocal const> const & status);
  void intfStatusLocalDel(Ovel::IntfId const & id);

  // Turns delivery to every reactor of this state machine on or off.
  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool active);

  void handleInitialized();
  void handleNsByName(Ovel::NamespaceName const & name);
  void handleNsByName();
  void doSyncIntfStatus(Ovel::IntfId const & intfId);

  // Reconciles the per-interface reactors with one key, or with the whole directory.
  void handleIntfStatus(Ovel::IntfId const & intfId);
  void handleIntfStatus();
  void handleIntfStatusLocal(Ovel::IntfId const & intfId);
  void handleIntfStatusLocal();

  void vornDoZombieReactors(bool zombie);

 private:
  class VornIntfStatusDir;
  class VornIntfStatusLocalDir;
  class VornNetNsCollection;

  template <class Reactor, class Entity, class N>
  Vorn::Ptr<Reactor> reactorIs(Vorn::Collection<Ovel::IntfId, Vorn::Ptr<Reactor>> & reactors,
                               Vorn::Ptr<Entity const> const & status, void (Reactor::*handler)(),
                               void (N::*callback)(Ovel::IntfId const &));
  // The per-interface handlers' common end: sync once the start-up sync has run.
  void doSyncIfInitialized(Ovel::IntfId const & intfId);

  Vorn::Ptr<IntfStatusDir const> intfStatusDir_;
  Vorn::Ptr<IntfStatusLocalDir const> intfStatusLocalDir_;
  Vorn::Ptr<KernelOperStateManager> kosm_;
  Vorn::Ptr<KernelNetNsInfo::Root const> netNsCollection_;
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<VornIntfStatus>> intfStatus_;
  Vorn::Collection<Ovel::IntfId, Vorn::Ptr<VornIntfStatusLocal>> intfStatusLocal_;
  bool initialized_ = false;
  bool notificationActive_ = true;
  Vorn::Ptr<VornIntfStatusDir> intfStatusDirReactor_;
  Vorn::Ptr<VornIntfStatusLocalDir> intfStatusLocalDirReactor_;
  Vorn::Ptr<VornNetNsCollection> netNsCollectionReactor_;
};

}  // namespace KernelOperState
