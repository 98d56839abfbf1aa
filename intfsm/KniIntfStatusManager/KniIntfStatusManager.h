// One network namespace's kernel interface status: for every device that both the namespace's
// device-name index (`kernelIntfDir`, filled by the namespace-aware device-name reactor) and the
// kernel (the Root of a KernelNetInfo::Status) know, an IntfStatusAndDeviceName {status, device name,
// ifindex} in `kernelIntfStatusDir`, by interface id and by ifindex.
//
//   auto manager = Interface::kniIntfStatusManagerFactory(kernelIntfStatusDir, kniStatus,
//                                                         Ovel::NamespaceName("blue"));
//   // usually made by NetNsIntfStatusManagerRoot::intfStatusManagerIs, which wires kernelIntfDir
//   manager->omitNonRunningKernelDevicesIs(true);          // only devices with IFF_RUNNING (0x40)
//   manager->kernelOnlyInterfaceIs("ma1", "Management1");  // a device with no IntfStatus, published anyway
//
// Rules worth knowing:
// - Start-up publishes nothing: construction ends with `initialized` set, after the pass over the
//   kernel's devices (which does nothing before `initialized`). Entries come as the index is filled.
// - An interface's published ifindex never changes in place: a device that comes back under the same
//   name with another ifindex must be seen gone first (KernelNetInfo::Root tells a name's removal
//   before its new holder), else the assertion "!oldIfIndex || oldIfIndex == newIfIndex" fires.
// - Both views of kernelIntfStatusDir change together (entryIs / entryDel), so an entry by ifindex
//   never outlives its entry by id, also for a kernel-only device (whose record has no status and
//   so counts as empty).
// - One interface, one device name: when a name comes to lead to another interface (two interfaces
//   swapping names, a duplicate resolved in the index), the interface it led to is unpublished first
//   and re-published under a name still its own, if any; only then is the new one published. When two
//   present names lead to one interface (a kernel-only name given the id of an indexed interface),
//   it is published under the index's name, else the smallest. Without this the same ifindex would
//   stand for two interfaces and the ifindex assertion would fire on the next change.
// - A manager dropped from its root (or destroyed) unpublishes what it published.
// - `deviceToName` remembers the id each device name was last resolved to, so that a name both sides
//   have forgotten is still unpublished.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The nested
// reactors keep what they watch alive (a bound notifiee holds its notifier): the kernel's Root and
// this manager's own kernelIntfDir.
//
// This header is also the module's umbrella: it ends by including the module's other public headers.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoInterfaceInfo.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class KniIntfStatusManager : public Vorn::Entity {
 public:
  // The kernel's IFF_RUNNING.
  static constexpr uint32_t runningFlag = 0x40;

  class NotifieeConst : public Vorn::Notifiee<KniIntfStatusManager> {
   public:
    virtual void onOmitNonRunningKernelDevices() {}
    virtual void onKernelOnlyInterface(Vorn::String const &) {}
    virtual void onDeviceToName(Vorn::String const &) {}
    virtual void onInitialized() {}
  };

  ~KniIntfStatusManager() override;
  char const * vornTypeName() const override { return "Interface::KniIntfStatusManager"; }

  Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir() const { return kernelIntfStatusDir_; }
  Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus() const { return kniStatus_; }
  Ovel::NamespaceName const & nsName() const { return nsName_; }
  KernelNetInfo::InterfaceInfo const & interfaceInfo() const { return interfaceInfo_; }
  Vorn::Ptr<KernelNetInfo::Root const> const & kniRoot() const { return kniRoot_; }

  bool omitNonRunningKernelDevices() const { return omitNonRunningKernelDevices_; }
  // A new value re-evaluates every device name seen so far.
  void omitNonRunningKernelDevicesIs(bool omit);

  Vorn::Ptr<IntfStatusIndexDir> const & kernelIntfDir() const { return kernelIntfDir_; }

  // Device name -> interface id text, for devices that have no IntfStatus but are published anyway
  // (with a null status). A text that is not a valid interface id raises Vorn::RangeException and
  // stores nothing; the empty text stands for no id.
  Vorn::String kernelOnlyInterface(Vorn::String const & name) const { return kernelOnlyInterface_.get(name); }
  uint32_t kernelOnlyInterfaces() const { return kernelOnlyInterface_.size(); }
  void kernelOnlyInterfaceIs(Vorn::String const & name, Vorn::String const & intfIdText);
  void kernelOnlyInterfaceDel(Vorn::String const & name);
  void kernelOnlyInterfaceDelAll();

  // The id a device name was last resolved to; the empty id when none.
  Ovel::IntfId deviceToName(Vorn::String const & name) const { return deviceToName_.get(name); }
  uint32_t deviceToNames() const { return deviceToName_.size(); }
  auto const & deviceToNameIter() const { return deviceToName_; }
  auto const & kernelOnlyInterfaceIter() const { return kernelOnlyInterface_; }

  bool initialized() const { return initialized_; }

  void handleKernelIntf();
  void handleKernelIntf(Vorn::String const & name);
  void handleKernelDevice();
  void handleKernelDevice(Vorn::String const & name);
  void handleOmitNonRunningKernelDevices();
  void handleInitialized();

  void vornDoZombieReactors(bool zombie);
  // Stops following the index and the kernel, and takes back everything published (both views).
  // The destructor does it too; the root does it when the manager's namespace is dropped, whoever
  // else still holds the manager.
  void unpublishAll();

 private:
  class VornKernelIntfDir;
  class VornKniRoot;
  friend Vorn::Ptr<KniIntfStatusManager> kniIntfStatusManagerFactory(Vorn::Ptr<DeviceIntfStatusDir> const &,
                                                                     Vorn::Ptr<KernelNetInfo::Status const> const &,
                                                                     Ovel::NamespaceName const &);

  KniIntfStatusManager(Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                       Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus, Ovel::NamespaceName const & nsName);

  // The interface a device name leads to: the index's, else the kernel-only one; the empty id.
  Ovel::IntfId resolved(Vorn::String const & name) const;
  // The device exists and counts (running, when only running devices count).
  bool present(Vorn::String const & name) const;
  // Of the present device names that lead to `id`, the one it is published under: a name of the
  // index before a kernel-only one, then the smallest. Empty when none.
  Vorn::String publishedName(Ovel::IntfId const & id) const;
  // Brings `id`'s entries in kernelIntfStatusDir in line with publishedName(id); `name` is the device
  // name being handled, for the traces.
  void publish(Ovel::IntfId const & id, Vorn::String const & name);
  void initializedIs(bool initialized);
  void deviceToNameIs(Vorn::String const & name, Ovel::IntfId const & id);
  void deviceToNameDel(Vorn::String const & name);
  // Takes `name` out of namesOf_'s list for `id`.
  void nameOfDel(Ovel::IntfId const & id, Vorn::String const & name);

  Vorn::Ptr<DeviceIntfStatusDir> kernelIntfStatusDir_;
  Vorn::Ptr<KernelNetInfo::Status const> kniStatus_;
  Ovel::NamespaceName nsName_;
  KernelNetInfo::InterfaceInfo interfaceInfo_;
  Vorn::Ptr<KernelNetInfo::Root const> kniRoot_;
  bool omitNonRunningKernelDevices_ = false;
  Vorn::Ptr<IntfStatusIndexDir> kernelIntfDir_;
  Vorn::Collection<Vorn::String, Vorn::String> kernelOnlyInterface_;
  Vorn::Collection<Vorn::String, Ovel::IntfId> deviceToName_;
  // deviceToName_ turned around: the device names that lead to each interface (one, but for a
  // transient conflict), kept with it so that publishing an interface never walks every name.
  std::unordered_map<Ovel::IntfId, std::vector<Vorn::String>> namesOf_;
  bool initialized_ = false;
  bool retired_ = false;  // unpublishAll ran: nothing is published any more
  Vorn::Ptr<VornKernelIntfDir> kernelIntfDirReactor_;
  Vorn::Ptr<VornKniRoot> kniRootReactor_;
};

// A null kernelIntfStatusDir raises Vorn::RangeException. A null kniStatus gives a manager that sees
// no kernel device, so publishes nothing.
Vorn::Ptr<KniIntfStatusManager> kniIntfStatusManagerFactory(Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                                                            Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus,
                                                            Ovel::NamespaceName const & nsName);

}  // namespace Interface

// The module's other public headers; NetNsIntfStatusManagerRoot.h includes this one first.
#include "intfsm/KniIntfStatusManager/KniAllIntfDeviceNameReactor.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfIdMap.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/KniIntfStatusManager/NetNsKernelIntfStatusDir.h"
