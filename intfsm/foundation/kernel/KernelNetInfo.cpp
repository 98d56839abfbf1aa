#include "intfsm/foundation/kernel/KernelNetInfo.h"

#include <net/if.h>

#include <ios>
#include <ostream>
#include <unordered_set>

namespace KernelNetInfo {

Interface::Interface(uint32_t ifIndex, uint32_t flags, Vorn::String const & deviceName, uint8_t operState)
    : ifIndex_(ifIndex), flags_(flags), operState_(operState) {
  deviceName_.set(deviceName.view());
}

bool Interface::isUp() const noexcept { return (flags_ & IFF_UP) != 0; }

bool Interface::isRunning() const noexcept { return (flags_ & IFF_RUNNING) != 0; }

std::ostream & operator<<(std::ostream & os, Interface const & i) {
  if (!i) return os << "none";
  std::ios_base::fmtflags const saved = os.flags();
  os << i.deviceNameBytes().view() << " (ifIndex " << std::dec << i.ifIndex() << ", flags 0x" << std::hex
     << i.flags() << ")";
  os.flags(saved);
  return os;
}

void Root::interfaceIs(Interface const & i) {
  if (!i) throw Vorn::RangeException("KernelNetInfo::Root::interfaceIs: ifIndex 0 not allowed");
  Vorn::String const name = i.deviceName();
  if (name.empty()) throw Vorn::RangeException("KernelNetInfo::Root::interfaceIs: empty deviceName not allowed");

  // Another device under this name: it no longer has it. Its removal is notified on its own, before
  // this device takes the name, so that a watcher keyed by name sees the old device go and then the new
  // one come (a device deleted and re-created under its name, whose deletion was lost or folded into
  // a dump), never one device turning into another.
  if (Interface const * holder = byName_.find(name); holder && holder->ifIndex() != i.ifIndex()) {
    Changes dropped;
    drop(holder->ifIndex(), dropped);
    notifyChanges(dropped);
  }
  Changes changes;
  // This device under another name: renamed.
  if (Interface const * old = byIfIndex_.find(i.ifIndex()); old && !(old->deviceNameBytes() == i.deviceNameBytes())) {
    Vorn::String const oldName = old->deviceName();
    if (byName_.del(oldName)) changes.names.push_back(oldName);
  }
  if (byName_.set(name, i)) changes.names.push_back(name);
  if (byIfIndex_.set(i.ifIndex(), i)) changes.ifIndexes.push_back(i.ifIndex());
  if (nameCache_.set(i.ifIndex(), name)) changes.cacheKeys.push_back(i.ifIndex());
  notifyChanges(changes);
}

void Root::interfaceDel(uint32_t ifIndex) {
  Changes changes;
  drop(ifIndex, changes);
  notifyChanges(changes);
}

void Root::interfaceDelAll() {
  while (uint32_t const * key = byIfIndex_.anyKey()) interfaceDel(*key);
}

void Root::drop(uint32_t ifIndex, Changes & changes) {
  Interface const * old = byIfIndex_.find(ifIndex);
  if (!old) return;
  Vorn::String const name = old->deviceName();
  if (Interface const * byName = byName_.find(name); byName && byName->ifIndex() == ifIndex) {
    byName_.del(name);
    changes.names.push_back(name);
  }
  byIfIndex_.del(ifIndex);
  changes.ifIndexes.push_back(ifIndex);
  if (nameCache_.del(ifIndex)) changes.cacheKeys.push_back(ifIndex);
}

void Root::notifyChanges(Changes const & changes) const {
  for (Vorn::String const & name : changes.names) notify(&NotifieeConst::onInterfaceByDeviceName, name);
  for (uint32_t ifIndex : changes.ifIndexes) notify(&NotifieeConst::onInterfaceByIfIndex, ifIndex);
  for (InterfaceKey key : changes.cacheKeys) notify(&NotifieeConst::onDeviceNameCache, key);
}

void Root::vornImmediateNotify(Vorn::BaseNotifiee * n) const {
  notifyOne(n, &NotifieeConst::onInterfaceByDeviceNamevornImmediate);
  notifyOne(n, &NotifieeConst::onInterfaceByIfIndexvornImmediate);
  notifyOne(n, &NotifieeConst::onDeviceNameCachevornImmediate);
}

void reconcile(Root & root, std::vector<Interface> const & interfaces) {
  std::unordered_set<uint32_t> listed;
  listed.reserve(interfaces.size());
  for (Interface const & i : interfaces) listed.insert(i.ifIndex());
  std::vector<uint32_t> vanished;
  for (auto const & e : root.interfaceByIfIndexIter()) {
    if (listed.count(e.key) == 0) vanished.push_back(e.key);
  }
  for (uint32_t ifIndex : vanished) root.interfaceDel(ifIndex);
  for (Interface const & i : interfaces) root.interfaceIs(i);
}

}  // namespace KernelNetInfo
