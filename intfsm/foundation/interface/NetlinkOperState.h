// Setting a device's operational state (IFLA_OPERSTATE, RFC 2863 values IF_OPER_*) over routing
// netlink, by device name.
//
//   int sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, "blue");
//   sockaddr_nl local{};  local.nl_family = AF_NETLINK;       // nl_pid 0: the kernel picks one
//   bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local);
//   bool ok = Interface::doSetNetlinkOperState(sd, "et1", 111, IF_OPER_DORMANT);
//
// One RTM_SETLINK request (NLM_F_REQUEST | NLM_F_ACK, ifi_index 0, IFLA_IFNAME, IFLA_OPERSTATE as u8)
// is sent on `sd`, a bound AF_NETLINK NETLINK_ROUTE socket in the device's namespace, and its
// acknowledgement is awaited. `tag` is the request's sequence number: the acknowledgement carrying
// it is the answer. The result is true when the kernel accepted the request; false with errno set
// otherwise: EINVAL for a null or empty name, a name over 15 bytes or a state outside IF_OPER_UNKNOWN
// (0) .. IF_OPER_UP (6), with nothing sent; the kernel's error for a refused request (ENODEV: no
// such device); ETIMEDOUT (or ENOBUFS after a receive overrun) when no acknowledgement comes.
//
// Accepted is not applied: the kernel moves to DORMANT only from an operationally up device and to UP
// only from DORMANT, TESTING or UNKNOWN; on other devices it acknowledges and changes nothing.
//
// The socket is taken to serve these requests alone: whatever is queued on it before the request
// is stale and is discarded, and replies with another sequence number are skipped. Reads do not block
// on a non-blocking socket; a missing acknowledgement is waited for at most one second.
#pragma once

#include <functional>

namespace Interface {

// Goes through netlinkOperStateHook().
bool doSetNetlinkOperState(int sd, char const * deviceName, int tag, int operState);

// The body of doSetNetlinkOperState; it reaches the kernel through Platform::calls().
bool sendNetlinkOperState(int sd, char const * deviceName, int tag, int operState);

// What doSetNetlinkOperState calls: sendNetlinkOperState unless a test has replaced it (to record
// requests or answer for the kernel). Whoever replaces it restores it.
using NetlinkOperStateHook = std::function<bool(int sd, char const * deviceName, int tag, int operState)>;
NetlinkOperStateHook & netlinkOperStateHook();

}  // namespace Interface
