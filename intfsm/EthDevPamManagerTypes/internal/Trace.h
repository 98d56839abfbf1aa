// The trace handle of the packet-access module, and the levels its traces use:
//   0  anomalies: failed system calls, refused set-up, frames that could not be read
//   1  notable events that are not errors (a socket closed, a reader that stopped consuming)
//   3  the kernel's view of buffers; outgoing frames seen on a shared socket
//   5  state changes: sockets made and sized, enabled, deferred delivery
//   6  frames dropped on the receive path (no interface, no ready Pam)
//   8  function entry
//   9  per-frame detail of the receive path
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Interface {

extern Brisklog::Handle ethDevPamManagerTypesTrace;

}  // namespace Interface

#define EDPM_TRACE(level, pieces) BRISKLOG_TRACE(::Interface::ethDevPamManagerTypesTrace, level, pieces)
