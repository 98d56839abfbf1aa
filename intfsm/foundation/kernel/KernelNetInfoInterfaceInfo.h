// Read-only lookups of one namespace's devices, over a KernelNetInfo::Status: what a consumer that
// only reads keeps as a member and binds once.
//
//   KernelNetInfo::InterfaceInfo info(kniStatus);
//   Vorn::Ptr<KernelNetInfo::Root const> root = info.root();   // watch it for changes
//   if (info.isRunning("va0")) ... info.ifIndex("va0") ... info.deviceName(7) ...
//
// Unbound (default-constructed, or bound to null), every lookup yields its empty answer.
#pragma once

#include <cstdint>

#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

namespace KernelNetInfo {

class InterfaceInfo {
 public:
  InterfaceInfo() = default;
  explicit InterfaceInfo(Vorn::Ptr<Status const> const & status) : status_(status) {}

  Vorn::Ptr<Status const> const & status() const { return status_; }
  void statusIs(Vorn::Ptr<Status const> const & status) { status_ = status; }

  // The status's Root; null when unbound.
  Vorn::Ptr<Root const> root() const { return status_ ? status_->root() : nullptr; }

  // The device called `deviceName`; the empty record when there is none.
  Interface interface(Vorn::String const & deviceName) const;
  // The device with that ifindex; the empty record when there is none.
  Interface interfaceByIfIndex(uint32_t ifIndex) const;
  bool exists(Vorn::String const & deviceName) const { return static_cast<bool>(interface(deviceName)); }
  // 0 when there is no such device.
  uint32_t ifIndex(Vorn::String const & deviceName) const { return interface(deviceName).ifIndex(); }
  // Empty when there is no such device.
  Vorn::String deviceName(InterfaceKey key) const;
  // IFF_RUNNING of the device; false when there is none.
  bool isRunning(Vorn::String const & deviceName) const { return interface(deviceName).isRunning(); }

 private:
  Vorn::Ptr<Status const> status_;
};

}  // namespace KernelNetInfo
