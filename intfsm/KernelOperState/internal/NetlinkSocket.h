// The routing netlink socket of the oper-state subsystem, opened in one place: the state machine's
// cached socket per namespace and the manager's short-lived one for a namespace without a cached socket.
#pragma once

#include "intfsm/foundation/ovel/NamespaceName.h"

namespace KernelOperState {

// Opens a NETLINK_ROUTE datagram socket inside `ns` and binds it (pid chosen by the kernel, no groups).
// After the socket call it traces at level 8 `openedTrace` and the descriptor, and, when
// `traceBinding`, "Binding to socket. Sd: " before the bind. No socket: in the default namespace the
// process ends (fperror("socket")); elsewhere perror("socket") reports it and the result is -1. A bind
// that fails ends the process (fperror("bind")). The caller owns the descriptor returned.
int netlinkSocketOpen(Ovel::NamespaceName const & ns, char const * openedTrace, bool traceBinding);

}  // namespace KernelOperState
