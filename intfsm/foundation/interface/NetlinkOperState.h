// Setting a device's operational state (IFLA_OPERSTATE, RFC 2863 values IF_OPER_*) over routing
// netlink, by device name, without ever blocking the event loop.
//
//   int sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, "blue");
//   sockaddr_nl local{};  local.nl_family = AF_NETLINK;       // nl_pid 0: the kernel picks one
//   bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local);
//   if (!Interface::doSetNetlinkOperState(sd, "et1", 111, IF_OPER_DORMANT)) ...  // the socket is broken
//
// One RTM_SETLINK request (NLM_F_REQUEST | NLM_F_ACK, ifi_index 0, IFLA_IFNAME, IFLA_OPERSTATE as u8)
// goes on `sd`, a bound AF_NETLINK NETLINK_ROUTE socket in the device's namespace. `tag` is its
// sequence number.
//
// The result says whether the request could be sent, not what the kernel made of it:
// - false, with errno set, only when nothing could be sent: sendto failed (the socket is broken), or
//   the arguments cannot make a request (EINVAL: a null or empty name, a state outside
//   IF_OPER_UNKNOWN (0) .. IF_OPER_UP (6)). A caller that skips empty names and maps its states into
//   that range sees false only for a broken socket, and may treat it as fatal.
// - true otherwise. The kernel's answer is read at once: rtnetlink handles the request inside sendto
//   and queues its acknowledgement before sendto returns. A refusal (ENODEV: the device is not, or not
//   yet, in that namespace) is an answer, not a failure: it is traced at level 0 of the handle
//   "Interface" ("IFLA_OPERSTATE 5 for device et1 refused: No such device"), since an interface
//   status may well name a device before the kernel has it. So is a name longer than 15 bytes, which
//   no device can have: traced ("... not sent: device name longer than 15 bytes") and not sent, so
//   that a bad name in an interface status never ends the process. An answer that cannot be read (cut
//   short, or carrying an error that is no errno) is traced at level 0 ("... answer not read: Protocol
//   error"); the walk of a datagram trusts no length it has not checked against the bytes read.
// - An acknowledgement that is not there yet is not waited for (traced at level 1); whatever it
//   later leaves on the socket is discarded by the next request, which then drains the socket before
//   it sends (only then: a request whose answer was read costs one receive). The socket is therefore
//   taken to serve these requests alone; replies from other ports or with another sequence number
//   are skipped.
//
// Accepted is not applied: the kernel moves to DORMANT only from an operationally up device and to UP
// only from DORMANT, TESTING or UNKNOWN; on other devices it acknowledges and changes nothing.
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
