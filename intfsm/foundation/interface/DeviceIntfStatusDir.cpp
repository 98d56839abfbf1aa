#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"

#include <utility>

namespace Interface {

void DeviceIntfStatusDir::intfStatusAndDeviceNameIs(Ovel::IntfId const & id, IntfStatusAndDeviceName const & record) {
  setEntry(intfStatusAndDeviceName_, id, record, &NotifieeConst::onIntfStatusAndDeviceName);
}

IntfStatusAndDeviceName DeviceIntfStatusDir::intfStatusAndDeviceNameDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;  // `id` may be the key of the entry that goes away
  IntfStatusAndDeviceName * stored = intfStatusAndDeviceName_.find(key);
  if (!stored) return {};
  IntfStatusAndDeviceName removed = *stored;
  intfStatusAndDeviceName_.del(key);
  notify(&NotifieeConst::onIntfStatusAndDeviceName, key);
  return removed;
}

void DeviceIntfStatusDir::entryIs(Ovel::IntfId const & id, IntfStatusAndDeviceName const & record) {
  Ovel::IntfId const key = id;
  IntfStatusAndDeviceName const old = intfStatusAndDeviceName_.get(key);
  if (old.ifIndex && old.ifIndex != record.ifIndex && ifIndexOwner_.get(old.ifIndex) == key) {
    ifIndexOwner_.del(old.ifIndex);
    intfStatusByIfIndexDel(old.ifIndex);
  }
  if (record.ifIndex) {
    Ovel::IntfId const holder = ifIndexOwner_.get(record.ifIndex);
    if (!holder.empty() && !(holder == key)) entryDel(holder);
  }
  // By ifindex first: whoever reacts to the id's notification finds both views agreeing.
  if (record.ifIndex) {
    ifIndexOwner_.set(record.ifIndex, key);
    intfStatusByIfIndexIs(record.ifIndex, record);
  }
  intfStatusAndDeviceNameIs(key, record);
}

IntfStatusAndDeviceName DeviceIntfStatusDir::entryDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;
  IntfStatusAndDeviceName const * stored = intfStatusAndDeviceName_.find(key);
  if (!stored) return {};
  IntfStatusAndDeviceName const removed = *stored;
  if (removed.ifIndex && ifIndexOwner_.get(removed.ifIndex) == key) {
    ifIndexOwner_.del(removed.ifIndex);
    intfStatusByIfIndexDel(removed.ifIndex);
  }
  intfStatusAndDeviceNameDel(key);
  return removed;
}

void DeviceIntfStatusDir::intfStatusAndDeviceNameDelAll() {
  delAllEntries(intfStatusAndDeviceName_, &NotifieeConst::onIntfStatusAndDeviceName);
}

void DeviceIntfStatusDir::intfStatusByIfIndexIs(uint32_t ifIndex, IntfStatusAndDeviceName const & record) {
  setEntry(intfStatusByIfIndex_, ifIndex, record, &NotifieeConst::onIntfStatusByIfIndex);
}

IntfStatusAndDeviceName DeviceIntfStatusDir::intfStatusByIfIndexDel(uint32_t ifIndex) {
  IntfStatusAndDeviceName * stored = intfStatusByIfIndex_.find(ifIndex);
  if (!stored) return {};
  IntfStatusAndDeviceName removed = *stored;
  intfStatusByIfIndex_.del(ifIndex);
  notify(&NotifieeConst::onIntfStatusByIfIndex, ifIndex);
  return removed;
}

void DeviceIntfStatusDir::intfStatusByIfIndexDelAll() {
  delAllEntries(intfStatusByIfIndex_, &NotifieeConst::onIntfStatusByIfIndex);
}

void DeviceIntfStatusDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusAndDeviceNamevornImmediate);
  notifyOne(notifiee, &NotifieeConst::onIntfStatusByIfIndexvornImmediate);
}

Vorn::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirFactory(Vorn::Name const & name) {
  return new DeviceIntfStatusDir(name);
}

}  // namespace Interface
