// The trace handle of the device-name index module, "IntfByDevice".
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Interface {

extern Brisklog::Handle intfByDeviceTrace;

}  // namespace Interface

#define IBD_TRACE(level, pieces) BRISKLOG_TRACE(::Interface::intfByDeviceTrace, level, pieces)
