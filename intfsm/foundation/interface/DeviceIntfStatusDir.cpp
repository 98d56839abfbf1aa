#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"

#include <utility>

namespace Interface {

void DeviceIntfStatusDir::intfStatusAndDeviceNameIs(Ovel::IntfId const & id, IntfStatusAndDeviceName const & record) {
  Ovel::IntfId const key = id;
  if (intfStatusAndDeviceName_.set(key, record)) notify(&NotifieeConst::onIntfStatusAndDeviceName, key);
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
  while (Ovel::IntfId const * key = intfStatusAndDeviceName_.anyKey()) intfStatusAndDeviceNameDel(*key);
}

void DeviceIntfStatusDir::intfStatusByIfIndexIs(uint32_t ifIndex, IntfStatusAndDeviceName const & record) {
  if (intfStatusByIfIndex_.set(ifIndex, record)) notify(&NotifieeConst::onIntfStatusByIfIndex, ifIndex);
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
  while (uint32_t const * key = intfStatusByIfIndex_.anyKey()) intfStatusByIfIndexDel(*key);
}

void DeviceIntfStatusDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusAndDeviceNamevornImmediate);
  notifyOne(notifiee, &NotifieeConst::onIntfStatusByIfIndexvornImmediate);
}

Vorn::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirFactory(Vorn::Name const & name) {
  return new DeviceIntfStatusDir(name);
}

}  // namespace Interface
