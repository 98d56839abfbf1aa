// Sockets inside a named network namespace.
//
//   int sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, "blue");   // a socket in /run/netns/blue
//   int lo = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, Ovel::defaultNsText);     // a plain socket here
//
// The default namespace (a null name, the empty name or the text "default") means the namespace the
// calling thread is in: a plain socket() is created. A named namespace is the one bound at
// /run/netns/<name>, as `ip netns add` leaves it: the calling thread enters it with setns, creates
// the socket and returns to its own namespace before socketAt returns, on every path. A thread that
// cannot return is left in a foreign namespace, which nothing can repair: the process aborts with a
// message naming the namespace.
//
// Every socket is created close-on-exec. On failure the result is negative and errno tells why
// (ENOENT: no such namespace; EINVAL: a name longer than 150 bytes, containing '/', or "." or "..";
// otherwise the errno of the failed step). No descriptor is left open on any failure.
#pragma once

#include <functional>

namespace Platform {
struct Calls;
}  // namespace Platform

namespace Ovel {

// The text that names the default namespace (the same text as NamespaceName's default).
inline constexpr char defaultNsText[] = "default";

// The longest namespace name accepted, in bytes.
inline constexpr unsigned maxNsNameBytes = 150;

// True for the names that mean the default namespace: null, "" and defaultNsText.
bool isDefaultNsName(char const * nsName);

// Goes through socketAtHook().
int socketAt(int domain, int type, int protocol, char const * nsName);

// The body of socketAt, reaching the kernel through `calls` (open, setns, socket, close).
int socketAtThrough(Platform::Calls const & calls, int domain, int type, int protocol, char const * nsName);

// What socketAt calls: socketAtThrough(Platform::calls(), ...) unless a test has replaced it (to hand
// out fake descriptors without entering any namespace). Whoever replaces it restores it.
using SocketAtHook = std::function<int(int domain, int type, int protocol, char const * nsName)>;
SocketAtHook & socketAtHook();

}  // namespace Ovel
