// The trace handle of the Ovel packet layer (packets, Pams and their sockets).
//
//   OVEL_TRACE(0, "EthDevPam::enabled failed to bind on " << name() << ", errno: " << e);
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Ovel {

extern Brisklog::Handle traceHandle;

}  // namespace Ovel

#define OVEL_TRACE(level, pieces) BRISKLOG_TRACE(::Ovel::traceHandle, level, pieces)
