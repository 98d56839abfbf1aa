// The trace handle of the interface-status types and the netlink oper-state request: "Interface".
// Level 0 is on by default, so that a device the kernel refused is seen without configuring anything.
//
//   INTF_TRACE(0, "IFLA_OPERSTATE " << operState << " for device " << name << " refused: " << text);
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Interface {

extern Brisklog::Handle traceHandle;

}  // namespace Interface

#define INTF_TRACE(level, pieces) BRISKLOG_TRACE(::Interface::traceHandle, level, pieces)
