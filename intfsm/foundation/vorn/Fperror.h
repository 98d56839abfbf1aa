// The end of the road for a process that cannot go on without a system resource (the default
// namespace's netlink socket, for one): report the system error for `what` as perror does, then exit
// with status 1.
//
//   if (sd < 0) fperror("socket");   // "socket: Too many open files" on stderr, exit status 1
#pragma once

[[noreturn]] void fperror(char const * what);
