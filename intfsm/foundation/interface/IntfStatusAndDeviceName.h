// What the kernel-facing side knows of one interface: its status (null for a device that only the
// kernel knows), its kernel device name and its kernel ifindex. DeviceIntfStatusDir holds these by
// interface id and by ifindex.
//
//   Interface::IntfStatusAndDeviceName r{status, "et1", 7};
//   if (!r) ...             // true when the record carries no status (absent, or kernel-only)
//   std::cout << r;         // "{ intfStatus: Ethernet1, deviceName: et1, ifIndex: 7 }"
#pragma once

#include <cstdint>
#include <iosfwd>

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/vorn/Ptr.h"
#include "intfsm/foundation/vorn/String.h"

namespace Interface {

struct IntfStatusAndDeviceName {
  Vorn::Ptr<IntfStatus const> intfStatus;
  Vorn::String deviceName;
  uint32_t ifIndex = 0;

  bool operator==(IntfStatusAndDeviceName const & o) const noexcept {
    return intfStatus == o.intfStatus && deviceName == o.deviceName && ifIndex == o.ifIndex;
  }
  bool operator!() const noexcept { return !intfStatus; }
};

// The status prints as its interface id, or "none".
std::ostream & operator<<(std::ostream & os, IntfStatusAndDeviceName const & r);

}  // namespace Interface
