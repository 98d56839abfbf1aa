// The entity through which an agent instantiates the kernel oper-state subsystem.
//
// Expected wiring by the owning agent:
//
//   auto root = KernelOperState::rootFactory("kos");
//   root->kosmIs();
//   root->intfStatusDirIs("intfStatus");
//   root->intfStatusLocalDirIs("intfStatusLocal");
//   root->netNsCollectionIs("netNs");
//   root->netNsManagerIs(root->netNsCollection());
//   root->intfStatusOperStatusSmIs(root->intfStatusDir(), root->intfStatusLocalDir(), root->kosm(),
//                                  root->netNsCollection());
//
// From then on the agent mirrors its interface statuses into the two directories, and runs its event
// loop (the namespace manager follows namespaces on it, and the link monitors of convergence read
// on it).
//
// `operStateConvergence` (bool, default false): the manager keeps each device's operational state equal
// to the decided one when the kernel changes it by itself (a carrier flap, a device re-created or
// appearing late; see KernelOperStateManager), at the cost of a second netlink socket per namespace.
// Off, status changes are pushed and nothing else. An agent that wants it turns it on, before or after
// kosmIs(): root->operStateConvergenceIs(true).
//
// Threading: everything, the agent's calls included, happens on the loop's one thread; nothing is
// locked. Lifetime: the root holds its children; a child's reactors hold (Ptr) what they watch, so the
// state machine keeps the manager and the directories alive after the root lets them go.
#pragma once

#include "intfsm/KernelOperState/IntfStatusDir.h"
#include "intfsm/KernelOperState/IntfStatusOperStatusSm.h"
#include "intfsm/KernelOperState/KernelOperStateManager.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace KernelOperState {

class Root : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Root> {
   public:
    virtual void onKosm() {}
    virtual void onIntfStatusDir() {}
    virtual void onIntfStatusLocalDir() {}
    virtual void onNetNsCollection() {}
    virtual void onNetNsManager() {}
    virtual void onIntfStatusOperStatusSm() {}
    virtual void onOperStateConvergence() {}
  };

  ~Root() override;
  char const * vornTypeName() const override { return "KernelOperState::Root"; }
  bool hasBackupSupport() const { return false; }

  Vorn::Ptr<KernelOperStateManager> const & kosm() const { return kosm_; }
  // Creates the manager if there is none, and returns it.
  Vorn::Ptr<KernelOperStateManager> kosmIs();
  void kosmDel();

  // Named children: the current child of that very name is kept; another name gets a new, empty one.
  Vorn::Ptr<IntfStatusDir> const & intfStatusDir() const { return intfStatusDir_; }
  Vorn::Ptr<IntfStatusDir> intfStatusDirIs(Vorn::Name const & name);
  void intfStatusDirDel();
  Vorn::Ptr<IntfStatusLocalDir> const & intfStatusLocalDir() const { return intfStatusLocalDir_; }
  Vorn::Ptr<IntfStatusLocalDir> intfStatusLocalDirIs(Vorn::Name const & name);
  void intfStatusLocalDirDel();
  Vorn::Ptr<KernelNetNsInfo::Root> const & netNsCollection() const { return netNsCollection_; }
  Vorn::Ptr<KernelNetNsInfo::Root> netNsCollectionIs(Vorn::Name const & name);
  void netNsCollectionDel();

  // A manager that keeps `root` equal to the kernel's namespaces, following them from now on.
  Vorn::Ptr<KernelNetNsInfo::Manager> const & netNsManager() const { return netNsManager_; }
  Vorn::Ptr<KernelNetNsInfo::Manager> netNsManagerIs(Vorn::Ptr<KernelNetNsInfo::Root> const & root);
  void netNsManagerDel();

  // The same four inputs keep the current state machine; any other builds a new one (with its own
  // start-up sync) in its place.
  Vorn::Ptr<IntfStatusOperStatusSm> const & intfStatusOperStatusSm() const { return intfStatusOperStatusSm_; }
  Vorn::Ptr<IntfStatusOperStatusSm> intfStatusOperStatusSmIs(
      Vorn::Ptr<IntfStatusDir const> const & intfStatusDir,
      Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir, Vorn::Ptr<KernelOperStateManager> const & kosm,
      Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection);
  void intfStatusOperStatusSmDel();

  // Applied to the manager that kosm holds now and to any that kosmIs() creates later.
  bool operStateConvergence() const { return operStateConvergence_; }
  void operStateConvergenceIs(bool on);

 private:
  friend Vorn::Ptr<Root> rootFactory(Vorn::Name const & name);
  explicit Root(Vorn::Name const & name) : Entity(name) {}

  Vorn::Ptr<KernelOperStateManager> kosm_;
  Vorn::Ptr<IntfStatusDir> intfStatusDir_;
  Vorn::Ptr<IntfStatusLocalDir> intfStatusLocalDir_;
  Vorn::Ptr<KernelNetNsInfo::Root> netNsCollection_;
  Vorn::Ptr<KernelNetNsInfo::Manager> netNsManager_;
  Vorn::Ptr<IntfStatusOperStatusSm> intfStatusOperStatusSm_;
  bool operStateConvergence_ = false;
};

Vorn::Ptr<Root> rootFactory(Vorn::Name const & name);

}  // namespace KernelOperState
