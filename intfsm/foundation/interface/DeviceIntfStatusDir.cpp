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
