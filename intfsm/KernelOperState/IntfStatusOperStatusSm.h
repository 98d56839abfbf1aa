// Keeps the kernel's operational state of every interface device equal to the operational status
// that the switch holds for the interface.
//
// Inputs: the interface statuses (device name and operStatus), the local statuses (the namespace of
// each device) and the namespaces that exist. A change of operStatus, device name or namespace, or a
// status or local status inserted or replaced, resyncs that interface through the oper-state manager.
// A namespace that appears gets a fresh cached netlink socket in the manager; one that disappears has
// its cached socket closed and removed.
//
// With convergence on, the manager keeps the state last decided for each namespace and device (see
// KernelOperStateManager). When an interface's device name or namespace changes, or its status leaves
// the directory, the decided state of the device it named before is dropped, so that nothing goes on
// re-asserting a state that no interface decides any more; while another interface still names that
// device there, the state is kept. When convergence is turned on, every interface is synced again, so
// that each device has a decided state to keep. So is every interface of a namespace that appears (by
// its notification) while convergence is on: a namespace deleted and made again under its name lost
// its decided states with the old one, and its devices, made again too, would otherwise keep the
// kernel's own state until their statuses next change. (The start-up sync, which follows the opening
// of every namespace's socket, covers the namespaces there at start.)
//
// Out of descriptors: a namespace whose cached socket cannot be opened for lack of descriptors (EMFILE,
// ENFILE) is traced once at level 0 by the socket's opener and tried again every shortageRetryInterval
// seconds on the loop's clock while it exists and has no cached socket; when one opens, every interface
// is synced again, since requests for it were dropped meanwhile. Where this departs from the oper-state
// side's plain steps, and why: a socket that cannot be had for the default namespace ends the process
// there; for a descriptor shortage it does not, because the shortage passes and an exit would drop the
// state of every namespace and every other subsystem of the agent; the retry and the resync are what
// keep the kernel from silently drifting after it. Other socket failures keep the plain behaviour.
// And: a namespace's presence notification replaces its cached socket with a fresh one; the one it
// replaces is closed then (kept open, it would leak a descriptor per repeated notification).
//
// Created (by the oper-state root, or IntfStatusOperStatusSmIs) with all four inputs; construction ends
// with the start-up sync.
//
// Threading: one event-loop thread runs every handler to completion; nothing is locked, so the inputs
// are changed only from that thread. Lifetime: each nested reactor holds a reference (Ptr) to the
// entity it watches, so a watched directory or status lives while it is watched; the state machine
// holds its four inputs, and its destructor zombies its reactors before it empties their collections.
#pragma once

#include <set>
#include <unordered_map>
#include <utility>

#include "intfsm/KernelOperState/IntfStatusDir.h"
#include "intfsm/KernelOperState/KernelOperStateManager.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Notifier.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace KernelOperState {

class IntfStatusOperStatusSm : public Vorn::Notifier {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatusOperStatusSm> {
   public:
    virtual void onInitialized() {}
    virtual void onIntfStatus(Ovel::IntfId const &) {}
    virtual void onIntfStatusLocal(Ovel::IntfId const &) {}
  };

  // Generic access (its members are for the oper-state root and subclasses).
  static Vorn::AttributeTable const & vornAttributes();

  // Watches one interface's status: operStatus and deviceName.
  class VornIntfStatus : public Vorn::Reactor<IntfStatusOperStatusSm, Interface::IntfStatus> {
   public:
    VornIntfStatus(IntfStatusOperStatusSm * owner, Ovel::IntfId const & intfId) : Reactor(owner), intfId_(intfId) {}
    Ovel::IntfId const & intfId() const { return intfId_; }
    void onOperStatus() override { run(&VornIntfStatus::handleOperStatusOrDeviceName); }
    void onDeviceName() override { run(&VornIntfStatus::handleOperStatusOrDeviceName); }
    void handleOperStatusOrDeviceName();

   private:
    Ovel::IntfId intfId_;
  };

  // Watches one interface's local status: netNsName.
  class VornIntfStatusLocal : public Vorn::Reactor<IntfStatusOperStatusSm, Interface::IntfStatusLocal> {
   public:
    VornIntfStatusLocal(IntfStatusOperStatusSm * owner, Ovel::IntfId const & intfId)
        : Reactor(owner), intfId_(intfId) {}
    Ovel::IntfId const & intfId() const { return intfId_; }
    void onNetNsName() override { run(&VornIntfStatusLocal::handleNetNsName); }
    void handleNetNsName();

   private:
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

  // The per-interface reactors. One removed from its collection is retired at once (unbound, marked for
  // deletion): a reference held elsewhere keeps a reactor that nothing calls.
  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.reactor(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  Vorn::Ptr<VornIntfStatus> intfStatusIs(Vorn::Ptr<Interface::IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & id);
  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const {
    return intfStatusLocal_.reactor(id);
  }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocalIs(Vorn::Ptr<Interface::IntfStatusLocal const> const & status);
  void intfStatusLocalDel(Ovel::IntfId const & id);

  // Turns delivery to every reactor of this state machine on or off.
  bool hasNotificationActive() const { return notificationActive_; }
  void hasNotificationActiveIs(bool active);

  void handleInitialized();
  // Convergence turned on in the manager: every interface is synced again.
  void handleOperStateConvergence();
  void handleNsByName(Ovel::NamespaceName const & name);
  void handleNsByName();
  void doSyncIntfStatus(Ovel::IntfId const & intfId);

  static constexpr double shortageRetryInterval = 1.0;
  // Namespaces waiting for a descriptor for their cached socket.
  uint32_t shortOfDescriptors() const { return static_cast<uint32_t>(shortOf_.size()); }
  // The retry time has come: open what is still missing.
  void handleShortageRetry();

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
  class VornKosm;
  class VornClock;

  using Change = Vorn::ReactorChange;

  // The per-interface handlers' common end: sync once the start-up sync has run.
  void doSyncIfInitialized(Ovel::IntfId const & intfId);
  void handleNsByNameOnBind();
  void shortageRetryIs(Ovel::NamespaceName const & name);
  // Notifies this machine's own watchers of a per-interface reactor created or deleted.
  void intfStatusReconciled(Ovel::IntfId const & id, Change change);
  void intfStatusLocalReconciled(Ovel::IntfId const & id, Change change);
  // Where the interface's decided state now lives; the one it had elsewhere is dropped.
  void decidedAtIs(Ovel::IntfId const & id, Ovel::NamespaceName const & ns, Vorn::String const & device);
  void decidedAtDel(Ovel::IntfId const & id);
  void leaveDecidedAt(Ovel::IntfId const & id);

  Vorn::Ptr<IntfStatusDir const> intfStatusDir_;
  Vorn::Ptr<IntfStatusLocalDir const> intfStatusLocalDir_;
  Vorn::Ptr<KernelOperStateManager> kosm_;
  Vorn::Ptr<KernelNetNsInfo::Root const> netNsCollection_;
  // Creating or rebinding a per-interface reactor runs its handler at once.
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleOperStatusOrDeviceName};
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatusLocal> intfStatusLocal_{&VornIntfStatusLocal::handleNetNsName};
  bool initialized_ = false;
  bool openingAll_ = false;  // handleNsByName() runs: the caller syncs afterwards, if at all
  bool notificationActive_ = true;
  std::unordered_map<Ovel::IntfId, std::pair<Ovel::NamespaceName, Vorn::String>> decidedAt_;
  // How many interfaces of decidedAt_ name each place.
  struct PlaceHash {
    size_t operator()(std::pair<Ovel::NamespaceName, Vorn::String> const & p) const noexcept {
      return std::hash<Ovel::NamespaceName>()(p.first) * 31 + std::hash<Vorn::String>()(p.second);
    }
  };
  std::unordered_map<std::pair<Ovel::NamespaceName, Vorn::String>, uint32_t, PlaceHash> interfacesAt_;
  Vorn::Ptr<VornIntfStatusDir> intfStatusDirReactor_;
  Vorn::Ptr<VornIntfStatusLocalDir> intfStatusLocalDirReactor_;
  Vorn::Ptr<VornNetNsCollection> netNsCollectionReactor_;
  Vorn::Ptr<VornKosm> kosmReactor_;
  Vorn::Ptr<VornClock> clockReactor_;
  std::set<Ovel::NamespaceName> shortOf_;
};

// A new state machine over the four inputs, started (the factory form through which an owner creates one).
Vorn::Ptr<IntfStatusOperStatusSm> IntfStatusOperStatusSmIs(
    Vorn::Ptr<IntfStatusDir const> const & intfStatusDir,
    Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir, Vorn::Ptr<KernelOperStateManager> const & kosm,
    Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection);

}  // namespace KernelOperState
