// Keeps one namespace's device-name index (an IntfStatusIndexDir) in step with every interface's
// status and local status: for each IntfStatus whose deviceName is set (and, with filterByNetNs, whose
// IntfStatusLocal puts it in this reactor's namespace) the index holds deviceName -> that IntfStatus.
//
//   auto index = Interface::intfStatusIndexDirFactory("default");
//   auto r = Interface::allIntfDeviceNameReactorFactory(allIntfStatus, allIntfStatusLocal, index,
//                                                       Ovel::NamespaceName(Ovel::DEFAULT_NS));
//   // index now holds every interface that has a device name; it follows renames from here on
//   r->filterByNetNsIs(true);   // evicts interfaces of other namespaces (they do not come back by
//                               // themselves when filtering is turned off again)
//
// Rules worth knowing:
// - The index is keyed by device name only. Two interfaces reporting one device name contest the key:
//   the one that started reporting it later holds it. Unlike a plain overwrite, the other one is not
//   forgotten: when the holder leaves the name, the name passes back to it (rather than the key going
//   while an interface still reports it), and when the other one leaves, the holder keeps the key
//   (rather than losing it to a deletion meant for someone else). A notification that changes nothing
//   for an interface re-asserts its entry only while it holds the name, so that which of two claimants
//   is indexed does not flip with unrelated notifications.
// - handleFilter() visits every interface with a recorded device name, including claimants that do
//   not hold their name, so that an evicted claimant cannot inherit a name later.
// - An empty netNs means the default namespace, and so does an empty netNsName of an interface.
// - Without filterByNetNs the namespaces are ignored entirely.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The nested
// reactors keep the directories they watch alive (a bound notifiee holds its notifier), and the index
// is held by the `intf` attribute.
#pragma once

#include <cstdint>
#include <vector>

#include "intfsm/IntfByDevice/DeviceNameClaims.h"
#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/IntfByDevice/IntfStatusWatcher.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

class AllIntfDeviceNameReactor : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<AllIntfDeviceNameReactor> {
   public:
    virtual void onFilterByNetNs() {}
    virtual void onIntfStatusToDeviceName(Ovel::IntfId const &) {}
  };

  using Watcher = IntfStatusWatcher<AllIntfDeviceNameReactor>;
  using VornIntfStatus = Watcher::VornIntfStatus;
  using VornIntfStatusLocal = Watcher::VornIntfStatusLocal;
  static constexpr char const * vornIntfStatusText =
      "void Interface::AllIntfDeviceNameReactor::VornIntfStatus::handleDeviceName()";
  static constexpr char const * vornIntfStatusLocalText =
      "void Interface::AllIntfDeviceNameReactor::VornIntfStatusLocal::handleDeviceNetNs()";
  static Brisklog::Handle & vornTrace();

  ~AllIntfDeviceNameReactor() override;
  char const * vornTypeName() const override { return "Interface::AllIntfDeviceNameReactor"; }

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
  Vorn::Ptr<IntfStatusIndexDir> const & intf() const { return intf_; }
  Ovel::NamespaceName const & netNs() const { return netNs_; }

  bool filterByNetNs() const { return filterByNetNs_; }
  // A new value runs handleFilter(); the current one does nothing.
  void filterByNetNsIs(bool filter);

  // The device name under which the interface is in the index; empty when it is not.
  Vorn::String intfStatusToDeviceName(Ovel::IntfId const & id) const { return intfStatusToDeviceName_.get(id); }
  uint32_t intfStatusToDeviceNames() const { return intfStatusToDeviceName_.size(); }
  auto const & intfStatusToDeviceNameIter() const { return intfStatusToDeviceName_; }
  auto const & intfStatusIter() const { return watcher_.intfStatusIter(); }
  auto const & intfStatusLocalIter() const { return watcher_.intfStatusLocalIter(); }

  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const {
    return watcher_.intfStatusLocal(id);
  }
  uint32_t intfStatusLocals() const { return watcher_.intfStatusLocals(); }
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local) { watcher_.intfStatusLocalIs(local); }
  void intfStatusLocalDel(Ovel::IntfId const & id) { watcher_.intfStatusLocalDel(id); }
  // The interfaces that report `name`, oldest claim first; the last one is indexed.
  std::vector<Ovel::IntfId> claimants(Vorn::String const & name) const { return claims_.claimants(name); }

  void handleDeviceName(Ovel::IntfId const & intfId);
  void handleIntfStatus();
  void handleIntfStatus(Ovel::IntfId const & intfId);
  void handleIntfStatusLocal();
  void handleIntfStatusLocal(Ovel::IntfId const & intfId);
  void handleFilter();

  void vornDoZombieReactors(bool zombie) { watcher_.zombieIs(zombie); }

 private:
  friend Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &,
      Vorn::Ptr<IntfStatusIndexDir> const &, Ovel::NamespaceName const &);

  AllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                           Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                           Vorn::Ptr<IntfStatusIndexDir> const & intf, Ovel::NamespaceName const & netNs);

  // Takes the interface out of the index (the name passes to the next claimant) and forgets its name.
  void unindex(Ovel::IntfId const & intfId, Vorn::String const & name);
  void intfStatusToDeviceNameDel(Ovel::IntfId const & intfId);

  Watcher watcher_{this};
  Vorn::Ptr<IntfStatusIndexDir> intf_;
  Ovel::NamespaceName netNs_;
  bool filterByNetNs_ = false;
  Vorn::Collection<Ovel::IntfId, Vorn::String> intfStatusToDeviceName_;
  DeviceNameClaims claims_;
  DeviceNameWants wants_;
};

// The reactor of namespace `netNs` over the two directories, writing `intf`; filterByNetNs starts false.
// The index is filled before this returns. A name over 150 bytes cannot be given (NamespaceName refuses it).
Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, Vorn::Ptr<IntfStatusIndexDir> const & intf,
    Ovel::NamespaceName const & netNs);

}  // namespace Interface
