// The named network namespace of one benchmark run ("<prefix>-<pid>"), removed on every way out:
// normal exit, exit(), a terminating signal or a crash (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT,
// SIGSEGV, SIGBUS: the handler unmounts and unlinks the name itself, which is all `ip netns del`
// does, with calls that are safe in a signal handler). Only SIGKILL leaves it behind.
//
//   if (!Bench::namespaceAdd("intfsmb")) fail("cannot create the namespace");
//   ... ip -n Bench::nsName ...; Bench::nsPath is "/run/netns/<name>"
#pragma once

#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Bench {

inline char nsPath[256];  // /run/netns/<name> while it exists; read by the signal handler
inline std::string nsName;

inline void removeNamespace() {
  if (nsPath[0] == '\0') return;
  umount2(nsPath, MNT_DETACH);
  unlink(nsPath);
  nsPath[0] = '\0';
}

inline void removeNamespaceOnSignal(int sig) {
  removeNamespace();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

// Creates the namespace with `ip netns add`; false when that fails.
inline bool namespaceAdd(std::string const & prefix) {
  nsName = prefix + "-" + std::to_string(getpid());
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS}) std::signal(sig, removeNamespaceOnSignal);
  std::atexit(removeNamespace);
  if (std::system(("ip netns add " + nsName).c_str()) != 0) return false;
  std::snprintf(nsPath, sizeof nsPath, "/run/netns/%s", nsName.c_str());
  return true;
}

}  // namespace Bench
