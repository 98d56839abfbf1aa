// The entry point of kernel interface status per namespace: owns the per-namespace device-name indexes
// (`netNsIntfStatusIndexDir`, named "nsisid"), the reactor that fills them (`isbdn`) and one
// KniIntfStatusManager per namespace the agent asks for, each reading the index of its namespace.
//
//   auto root = Interface::netNsIntfStatusManagerRootFactory(allIntfStatus, allIntfStatusLocal, true);
//   auto kni = KernelNetInfo::Status::statusNew("kni-blue", Ovel::NamespaceName("blue"));
//   kni->enabledIs(true);
//   auto kis = Interface::deviceIntfStatusDirFactory("kernelIntfStatus-blue");
//   root->intfStatusManagerIs(kis, kni, Ovel::NamespaceName("blue"));
//   // kis now holds blue's interfaces by id and by ifindex, and follows them
//   root->intfStatusManagerDel(Ovel::NamespaceName("blue"));
//
// Dropping a namespace's manager takes back what it published in its kernelIntfStatusDir, by id and
// by ifindex, at once (also when someone else still holds the manager): left there, the entries
// would go stale as the kernel changes, and a manager made again over a device that came back with
// another ifindex would trip the ifindex assertion.
//
// Without filterByNetNs only the default namespace (DEFAULT_NS) may have a manager; asking for another
// is a program error (assertion). Asking again for a namespace with the same arguments returns the same
// manager; with another kernelIntfStatusDir or kniStatus it raises Vorn::NameInUseException.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The root owns what
// it makes; the managers' and the reactor's nested reactors keep what they watch alive.
#pragma once

#include <cstdint>

#include "intfsm/IntfByDevice/NetNsIntfStatusIndexDir.h"
#include "intfsm/KniIntfStatusManager/KniAllIntfDeviceNameReactor.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class NetNsIntfStatusManagerRoot : public Vorn::Entity {
 public:
  using IntfStatusManagerMap = Vorn::Collection<Ovel::NamespaceName, Vorn::Ptr<KniIntfStatusManager>>;

  class NotifieeConst : public Vorn::Notifiee<NetNsIntfStatusManagerRoot> {
   public:
    virtual void onIntfStatusManager(Ovel::NamespaceName const &) {}
    virtual void onNetNsIntfStatusIndexDir() {}
    virtual void onIsbdn() {}
    virtual void onInitialized() {}
  };

  ~NetNsIntfStatusManagerRoot() override;
  char const * vornTypeName() const override { return "Interface::NetNsIntfStatusManagerRoot"; }

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return allIntfStatusDir_; }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const { return allIntfStatusLocalDir_; }
  bool filterByNetNs() const { return filterByNetNs_; }

  // The manager of `nsName`, or null.
  Vorn::Ptr<KniIntfStatusManager> intfStatusManager(Ovel::NamespaceName const & nsName) const {
    return intfStatusManager_.get(nsName);
  }
  uint32_t intfStatusManagers() const { return intfStatusManager_.size(); }
  IntfStatusManagerMap const & intfStatusManagerIter() const { return intfStatusManager_; }
  // Creates (or returns) the manager of `nsName` and puts its kernelIntfDir among the indexes.
  Vorn::Ptr<KniIntfStatusManager> intfStatusManagerIs(Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                                                      Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus,
                                                      Ovel::NamespaceName const & nsName);
  // Drops the manager of `nsName` and takes its index out.
  void intfStatusManagerDel(Ovel::NamespaceName const & nsName);

  Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir() const { return netNsIntfStatusIndexDir_; }

  Vorn::Ptr<KniAllIntfDeviceNameReactor> const & isbdn() const { return isbdn_; }
  // The same arguments keep the current reactor; others make a new one in its place.
  Vorn::Ptr<KniAllIntfDeviceNameReactor> isbdnIs(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                                 Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                                                 Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir,
                                                 bool filterByNetNs);
  void isbdnDel();

  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleIntfStatusManager(Ovel::NamespaceName const & nsName);

 private:
  friend Vorn::Ptr<NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRootFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &, bool);
  NetNsIntfStatusManagerRoot(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                             Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, bool filterByNetNs);

  Vorn::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Vorn::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  bool filterByNetNs_;
  IntfStatusManagerMap intfStatusManager_;
  Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDir_;
  Vorn::Ptr<KniAllIntfDeviceNameReactor> isbdn_;
  bool initialized_ = false;
};

// The root, initialized: its indexes and reactor exist, no manager yet.
Vorn::Ptr<NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRootFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, bool filterByNetNs);

}  // namespace Interface
