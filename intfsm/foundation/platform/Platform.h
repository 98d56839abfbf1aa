// The table of raw system calls through which library code reaches the kernel: socket creation,
// socket options, reads and writes on sockets, and the probes of the fixed /proc, /sys and /etc paths.
// It sits below everything else in the library and knows nothing of it. Production runs on the real
// calls; a test swaps entries of the live table (tests/support/FakePlatform does it wholesale) to
// count calls and to make the kernel fail on demand.
//
//   int sd = Platform::calls().socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
//   if (Platform::calls().setsockopt(sd, SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio) < 0) { ... }
//
// Every entry keeps the contract of the call it stands for: a negative result (null for fopen) with
// errno set on failure. Composite operations built on these calls (Ovel::socketAt, the netlink
// oper-state request) keep a test hook of their own beside their body.
// Entries are std::function: one indirect call next to a system call costs nothing measurable.
// Not part of the installed API.
#pragma once

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <functional>

namespace Platform {

struct Calls {
  std::function<int(int domain, int type, int protocol)> socket;
  std::function<int(int fd, sockaddr const * address, socklen_t length)> bind;
  std::function<int(int fd)> close;
  std::function<int(int fd, int level, int name, void const * value, socklen_t length)> setsockopt;
  std::function<int(int fd, int level, int name, void * value, socklen_t * length)> getsockopt;
  std::function<int(int fd, unsigned long request, void * argument)> ioctl;
  std::function<ssize_t(int fd, msghdr * message, int flags)> recvmsg;
  std::function<int(int fd, mmsghdr * messages, unsigned count, int flags, timespec * timeout)> recvmmsg;
  std::function<ssize_t(int fd, void const * data, size_t length, int flags, sockaddr const * to, socklen_t toLength)>
      sendto;
  std::function<int(pollfd * fds, nfds_t count, int timeoutMs)> poll;
  // Mapping a packet socket's receive ring (MAP_FAILED with errno on failure) and giving it back.
  std::function<void *(void * address, size_t length, int protection, int flags, int fd, off_t offset)> mmap;
  std::function<int(void * address, size_t length)> munmap;

  // Reading a descriptor (the namespace manager's inotify events).
  std::function<ssize_t(int fd, void * data, size_t length)> read;

  // Opening namespace files and entering namespaces.
  std::function<int(char const * path, int flags)> open;
  std::function<int(int fd, int nsType)> setns;

  // Probes of fixed paths ("/sys/class/net/fabric", "/etc/swi-version", "/proc/...").
  std::function<int(char const * path, struct stat * result)> lstat;
  std::function<int(char const * path, struct stat * result)> stat;
  std::function<FILE *(char const * path, char const * mode)> fopen;

  // Watching the directory of named namespaces.
  std::function<int(int flags)> inotify_init1;
  std::function<int(int fd, char const * path, uint32_t mask)> inotify_add_watch;
};

// The live table: what library code calls. Tests may assign its entries; whoever does restores them.
Calls & calls();

// The real calls, never changed.
Calls const & realCalls();

}  // namespace Platform
