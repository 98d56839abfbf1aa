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
// - The index is keyed by device name only. Two interfaces reporting one device name share the key:
//   the later one wins it, and whichever leaves first removes it.
// - An empty netNs means the default namespace, and so does an empty netNsName of an interface.
// - Without filterByNetNs the namespaces are ignored entirely.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The nested
// reactors keep the directories they watch alive (a bound notifiee holds its notifier), and the index
// is held by the `intf` attribute.
#pragma once

#include <cstdint>

#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
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

  // Watches one interface's deviceName.
  class VornIntfStatus : public Vorn::Reactor<AllIntfDeviceNameReactor, IntfStatus> {
   public:
    VornIntfStatus(AllIntfDeviceNameReactor * owner, Ovel::IntfId const & id) : Reactor(owner), intfId_(id) {}
    void onDeviceName() override { run(&VornIntfStatus::handleDeviceName); }
    void handleDeviceName();

   private:
    Ovel::IntfId intfId_;
  };

  // Watches one interface's netNsName.
  class VornIntfStatusLocal : public Vorn::Reactor<AllIntfDeviceNameReactor, IntfStatusLocal> {
   public:
    VornIntfStatusLocal(AllIntfDeviceNameReactor * owner, Ovel::IntfId const & id) : Reactor(owner), intfId_(id) {}
    void onNetNsName() override { run(&VornIntfStatusLocal::handleDeviceNetNs); }
    void handleDeviceNetNs();

   private:
    Ovel::IntfId intfId_;
  };

  ~AllIntfDeviceNameReactor() override;
  char const * vornTypeName() const override { return "Interface::AllIntfDeviceNameReactor"; }

  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & id) const { return intfStatus_.reactor(id); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  // Watches `status` for its interface (replacing the entity watched so far); null raises
  // Vorn::RangeException.
  void intfStatusIs(Vorn::Ptr<IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & id);

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return allIntfStatusDir_; }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const { return allIntfStatusLocalDir_; }
  Vorn::Ptr<IntfStatusIndexDir> const & intf() const { return intf_; }
  Ovel::NamespaceName const & netNs() const { return netNs_; }

  bool filterByNetNs() const { return filterByNetNs_; }
  // A new value runs handleFilter(); the current one does nothing.
  void filterByNetNsIs(bool filter);

  // The device name under which the interface is in the index; empty when it is not.
  Vorn::String intfStatusToDeviceName(Ovel::IntfId const & id) const { return intfStatusToDeviceName_.get(id); }
  uint32_t intfStatusToDeviceNames() const { return intfStatusToDeviceName_.size(); }

  Vorn::Ptr<VornIntfStatusLocal> intfStatusLocal(Ovel::IntfId const & id) const {
    return intfStatusLocal_.reactor(id);
  }
  uint32_t intfStatusLocals() const { return intfStatusLocal_.size(); }
  void intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal const> const & local);
  void intfStatusLocalDel(Ovel::IntfId const & id);

  void handleDeviceName(Ovel::IntfId const & intfId);
  void handleIntfStatus();
  void handleIntfStatus(Ovel::IntfId const & intfId);
  void handleIntfStatusLocal();
  void handleIntfStatusLocal(Ovel::IntfId const & intfId);
  void handleFilter();

  void vornDoZombieReactors(bool zombie);

 private:
  class VornAllIntfStatusDir;
  class VornAllIntfStatusLocalDir;
  friend Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &,
      Vorn::Ptr<IntfStatusIndexDir> const &, Ovel::NamespaceName const &);

  AllIntfDeviceNameReactor(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                           Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                           Vorn::Ptr<IntfStatusIndexDir> const & intf, Ovel::NamespaceName const & netNs);

  // What the directory reactors run: one key changed, or the whole directory is to be matched.
  void doIntfStatusChange(Ovel::IntfId const & intfId);
  void doIntfStatusReconcile(bool keyless);
  void doIntfStatusLocalChange(Ovel::IntfId const & intfId);
  void doIntfStatusLocalReconcile(bool keyless);
  void intfStatusToDeviceNameDel(Ovel::IntfId const & intfId);

  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleDeviceName};
  Vorn::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Vorn::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  Vorn::Ptr<IntfStatusIndexDir> intf_;
  Ovel::NamespaceName netNs_;
  bool filterByNetNs_ = false;
  Vorn::Collection<Ovel::IntfId, Vorn::String> intfStatusToDeviceName_;
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatusLocal> intfStatusLocal_{&VornIntfStatusLocal::handleDeviceNetNs};
  Vorn::Ptr<VornAllIntfStatusDir> allIntfStatusDirReactor_;
  Vorn::Ptr<VornAllIntfStatusLocalDir> allIntfStatusLocalDirReactor_;
};

// The reactor of namespace `netNs` over the two directories, writing `intf`; filterByNetNs starts false.
// The index is filled before this returns. A name over 150 bytes cannot be given (NamespaceName refuses it).
Vorn::Ptr<AllIntfDeviceNameReactor> allIntfDeviceNameReactorFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, Vorn::Ptr<IntfStatusIndexDir> const & intf,
    Ovel::NamespaceName const & netNs);

}  // namespace Interface
