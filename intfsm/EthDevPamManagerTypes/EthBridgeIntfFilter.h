// Keeps a desired-interface directory equal to the set of bridged interfaces whose kernel device is
// known: an agent that wants a Pam on every bridged interface hands the same directory to a
// packet-access manager.
//
//   auto desired = Interface::pamDesiredIntfDirFactory("bridged");
//   auto filter = Interface::ethBridgeIntfFilterFactory(deviceIntfStatusDir, desired);
//   auto manager = Interface::ethDevPamManagerFactory(desired, pams, deviceIntfStatusDir);
//
// Per interface of the device directory: a record with an IntfStatus gets a reactor on that status,
// and the interface is desired while its forwardingModel is the bridged one (4), its entry deleted
// otherwise; a record without a status (a device only the kernel knows) is desired at once; a
// record that goes takes its reactor and its entry along. Entries are deleted, never set to false.
// A record whose status changes moves the reactor to the new status. A record that loses its status
// keeps the reactor (the interface is desired as any status-less record is), but a reactor decides only
// while the record names its status: the old status's forwardingModel changes nothing meanwhile, and
// when the record names that status again the reactor decides anew at once (otherwise the interface
// would stay desired whatever its model).
//
// Threading: everything runs on the loop's one thread and nothing is locked. The nested reactors hold
// references to what they watch (a bound notifiee keeps its notifier alive): the device directory and
// each watched IntfStatus. The destructor zombies them before its collections are emptied.
#pragma once

#include <cstdint>

#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

class EthBridgeIntfFilter : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthBridgeIntfFilter> {
   public:
    virtual void onIntfStatus(Ovel::IntfId const &) {}
  };

  // Watches one interface's forwardingModel.
  class VornIntfStatus : public Vorn::Reactor<EthBridgeIntfFilter, IntfStatus> {
   public:
    VornIntfStatus(EthBridgeIntfFilter * owner, Ovel::IntfId const & intfId) : Reactor(owner), intfId_(intfId) {}
    void onForwardingModel() override { run(&VornIntfStatus::handleForwardingModel); }
    void handleForwardingModel();

   private:
    Ovel::IntfId intfId_;
  };

  ~EthBridgeIntfFilter() override;
  char const * vornTypeName() const override { return "Interface::EthBridgeIntfFilter"; }

  Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir() const { return deviceIntfStatusDir_; }
  Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir() const { return desiredIntfDir_; }

  // The reactor on `intfId`'s status; null when none.
  Vorn::Ptr<VornIntfStatus> intfStatus(Ovel::IntfId const & intfId) const { return intfStatus_.reactor(intfId); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  auto const & intfStatusIter() const { return intfStatus_; }
  // Watches `status` for `intfId`; a null status raises Vorn::RangeException "null _intfStatus
  // parameter to mutator for Interface::EthBridgeIntfFilter::intfStatus not allowed".
  void intfStatusIs(Ovel::IntfId const & intfId, Vorn::Ptr<IntfStatus const> const & status);
  void intfStatusDel(Ovel::IntfId const & intfId);

  void handleDeviceIntfStatus();
  void handleDeviceIntfStatus(Ovel::IntfId const & intfId);

  void vornDoZombieReactors(bool zombie);

 private:
  class VornDeviceIntfStatusDir;
  friend Vorn::Ptr<EthBridgeIntfFilter> ethBridgeIntfFilterFactory(Vorn::Ptr<DeviceIntfStatusDir const> const &,
                                                                    Vorn::Ptr<PamDesiredIntfDir> const &);
  EthBridgeIntfFilter(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                      Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir);

  Vorn::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir_;
  Vorn::Ptr<PamDesiredIntfDir> desiredIntfDir_;
  Vorn::ReactorCollection<Ovel::IntfId, VornIntfStatus> intfStatus_{&VornIntfStatus::handleForwardingModel};
  Vorn::Ptr<VornDeviceIntfStatusDir> deviceIntfStatusDirReactor_;
};

// Bound at once: every record already in the directory is acted on. A null directory raises
// Vorn::RangeException.
Vorn::Ptr<EthBridgeIntfFilter> ethBridgeIntfFilterFactory(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                                          Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir);

}  // namespace Interface
