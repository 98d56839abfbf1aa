#include "intfsm/foundation/kernel/KernelNetInfoInterfaceInfo.h"

namespace KernelNetInfo {

Interface InterfaceInfo::interface(Vorn::String const & deviceName) const {
  Vorn::Ptr<Root const> const r = root();
  return r ? r->interfaceByDeviceName(deviceName) : Interface();
}

Interface InterfaceInfo::interfaceByIfIndex(uint32_t ifIndex) const {
  Vorn::Ptr<Root const> const r = root();
  return r ? r->interfaceByIfIndex(ifIndex) : Interface();
}

Vorn::String InterfaceInfo::deviceName(InterfaceKey key) const {
  Vorn::Ptr<Root const> const r = root();
  return r ? r->deviceNameCache(key) : Vorn::String();
}

}  // namespace KernelNetInfo
