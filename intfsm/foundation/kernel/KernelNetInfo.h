// The kernel's network devices of one namespace, as a collection that reactors can watch.
//
// `Interface` is one device as rtnetlink reports it: ifindex, IFF_* flags, device name (kept in a
// 16-byte PodArray, the kernel's IFNAMSIZ; a longer name raises Vorn::RangeException) and operational
// state (IFLA_OPERSTATE, an RFC 2863 IF_OPER_* value; IF_OPER_UNKNOWN, 0, when not reported).
//
// `Root` holds the devices three ways, always consistent with each other:
// - `interfaceByDeviceName`: device name -> Interface, what readers that know a device by name use;
// - `interfaceByIfIndex`: ifindex -> Interface, for the receive paths that get an ifindex;
// - `deviceNameCache`: interface key (the ifindex, `InterfaceKey`) -> device name. It changes, and
//   notifies, only when a device appears, disappears or is renamed, never for a flag change: the
//   place to watch for readers that keep names by ifindex and do not care about up/down.
// Every change notifies each key that changed (the old and the new name on a rename), after all three
// collections are consistent again; storing what is already there notifies nobody.
//
// A KernelNetInfo::Status keeps a Root equal to the kernel's devices of its namespace; unit tests
// and agents without a kernel fill one by hand:
//
//   auto root = KernelNetInfo::Root::rootNew("kni");
//   root->interfaceIs(KernelNetInfo::Interface(7, IFF_UP | IFF_RUNNING, "et1"));
//   root->interfaceIs(KernelNetInfo::Interface(7, IFF_UP, "et1-renamed"));   // "et1" is gone now
//   root->interfaceDel(7);
#pragma once

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "intfsm/foundation/kernel/internal/PodArray.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/String.h"

namespace KernelNetInfo {

// The kernel's own bound on a device name, terminating zero included.
inline constexpr size_t deviceNameBytes = 16;
using DeviceName = PodArray<deviceNameBytes>;

// The key of the device-name cache: a device's ifindex.
using InterfaceKey = uint32_t;

class Interface {
 public:
  // The empty record (ifindex 0): what lookups of an absent device yield.
  Interface() noexcept = default;
  // A name longer than 16 bytes raises Vorn::RangeException (PodArray's text).
  Interface(uint32_t ifIndex, uint32_t flags, Vorn::String const & deviceName, uint8_t operState = 0);

  uint32_t ifIndex() const noexcept { return ifIndex_; }
  uint32_t flags() const noexcept { return flags_; }
  Vorn::String deviceName() const { return Vorn::String(deviceName_.view()); }
  DeviceName const & deviceNameBytes() const noexcept { return deviceName_; }
  uint8_t operState() const noexcept { return operState_; }

  bool isUp() const noexcept;       // IFF_UP: administratively up
  bool isRunning() const noexcept;  // IFF_RUNNING (0x40): operationally up

  // False for the empty record.
  explicit operator bool() const noexcept { return ifIndex_ != 0; }
  bool operator!() const noexcept { return ifIndex_ == 0; }
  bool operator==(Interface const &) const noexcept = default;

 private:
  uint32_t ifIndex_ = 0;
  uint32_t flags_ = 0;
  DeviceName deviceName_;
  uint8_t operState_ = 0;
};

// "va0 (ifIndex 3, flags 0x1003)", or "none" for the empty record.
std::ostream & operator<<(std::ostream & os, Interface const & i);

class Root : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Root> {
   public:
    virtual void onInterfaceByDeviceName(Vorn::String const &) {}
    virtual void onInterfaceByDeviceNamevornImmediate() {}
    virtual void onInterfaceByIfIndex(uint32_t) {}
    virtual void onInterfaceByIfIndexvornImmediate() {}
    virtual void onDeviceNameCache(InterfaceKey) {}
    virtual void onDeviceNameCachevornImmediate() {}
  };

  static Vorn::Ptr<Root> rootNew(Vorn::Name const & name) { return new Root(name); }

  // The device called `name`; the empty record when there is none.
  Interface interfaceByDeviceName(Vorn::String const & name) const { return byName_.get(name); }
  bool interfaceByDeviceNameHas(Vorn::String const & name) const { return byName_.contains(name); }
  uint32_t interfaceByDeviceNames() const { return byName_.size(); }
  Vorn::Collection<Vorn::String, Interface> const & interfaceByDeviceNameIter() const { return byName_; }
  void interfaceByDeviceNameNotify(Vorn::String const & name) const {
    notify(&NotifieeConst::onInterfaceByDeviceName, name);
  }

  // The device with ifindex `ifIndex`; the empty record when there is none.
  Interface interfaceByIfIndex(uint32_t ifIndex) const { return byIfIndex_.get(ifIndex); }
  bool interfaceByIfIndexHas(uint32_t ifIndex) const { return byIfIndex_.contains(ifIndex); }
  uint32_t interfaceByIfIndexs() const { return byIfIndex_.size(); }
  Vorn::Collection<uint32_t, Interface> const & interfaceByIfIndexIter() const { return byIfIndex_; }

  // The device name of interface `key`; empty when there is none.
  Vorn::String deviceNameCache(InterfaceKey key) const { return nameCache_.get(key); }
  bool deviceNameCacheHas(InterfaceKey key) const { return nameCache_.contains(key); }
  uint32_t deviceNameCaches() const { return nameCache_.size(); }
  Vorn::Collection<InterfaceKey, Vorn::String> const & deviceNameCacheIter() const { return nameCache_; }

  // Adds or updates a device under both keys. Its ifindex's previous name, if different, is dropped
  // (a rename); a device of another ifindex that held this name is dropped entirely (names are unique
  // within a namespace, so that one was renamed or deleted and will be reported again if it exists),
  // and that drop is notified first, as a mutation of its own: watchers see the name go, then come back.
  // Ifindex 0 or an empty name raises Vorn::RangeException and changes nothing.
  void interfaceIs(Interface const & i);
  // Removes the device with that ifindex from all three collections; nothing when absent.
  void interfaceDel(uint32_t ifIndex);
  void interfaceDelAll();

 protected:
  explicit Root(Vorn::Name const & name) : Entity(name) {}
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override;

 private:
  // Changes of one mutation, notified once the collections agree again.
  struct Changes {
    std::vector<Vorn::String> names;
    std::vector<uint32_t> ifIndexes;
    std::vector<InterfaceKey> cacheKeys;
  };
  void drop(uint32_t ifIndex, Changes & changes);
  void notifyChanges(Changes const & changes) const;

  Vorn::Collection<Vorn::String, Interface> byName_;
  Vorn::Collection<uint32_t, Interface> byIfIndex_;
  Vorn::Collection<InterfaceKey, Vorn::String> nameCache_;
};

// Makes `root` hold exactly `interfaces` (a complete list, as a dump gives it): devices absent from
// the list are removed first, then each listed one is stored. Only real changes notify. The list
// must not name one device twice, nor give two devices the same name.
void reconcile(Root & root, std::vector<Interface> const & interfaces);

}  // namespace KernelNetInfo
