// The trace handle of the simple packet managers, "SimpleTxRxPktManager", and the levels it uses:
//   0  anomalies: a filter refused outside a test environment
//   5  state changes: interfaces added to or removed from the desired list, a filter set
//   7  per-frame detail of the receive loop
//   8  function entry
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Interface {

extern Brisklog::Handle simpleTxRxPktManagerTrace;

}  // namespace Interface

#define STRPM_TRACE(level, pieces) BRISKLOG_TRACE(::Interface::simpleTxRxPktManagerTrace, level, pieces)
