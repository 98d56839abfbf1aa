// The routing netlink socket of the oper-state subsystem, opened in one place: the state machine's
// cached socket per namespace and the manager's short-lived one for a namespace without a cached socket.
#pragma once

#include "intfsm/foundation/ovel/NamespaceName.h"

namespace KernelOperState {

// What the registry of descriptors (Vorn/Descriptors.h) calls both kinds: a shortage of either is one
// shortage of the namespace, which the next socket opened there ends.
inline constexpr char socketPurpose[] = "oper-state netlink socket";

// Opens a NETLINK_ROUTE datagram socket inside `ns`, binds it (pid chosen by the kernel, no groups) and
// names it socketPurpose for "namespace <ns>" in the descriptor registry (the closer calls
// Vorn::descriptorClosed). After the socket call it traces at level 8 `openedTrace` and the
// descriptor, and, when `traceBinding`, "Binding to socket. Sd: " before the bind. No socket: in the
// default namespace the process ends (fperror("socket")); elsewhere perror("socket") reports it and
// the result is -1. A bind that fails ends the process (fperror("bind")). The caller owns the
// descriptor returned.
//
// Out of descriptors (EMFILE, ENFILE), in any namespace, the result is -1 after one level-0 trace
// "cannot open oper-state netlink socket for namespace <ns>, errno: 24 (out of descriptors)" (once until
// a socket opens there again), without perror and without ending the process: such a shortage
// passes, and an agent that exits for it loses every namespace's state at once. The callers retry.
int netlinkSocketOpen(Ovel::NamespaceName const & ns, char const * openedTrace, bool traceBinding);

}  // namespace KernelOperState
