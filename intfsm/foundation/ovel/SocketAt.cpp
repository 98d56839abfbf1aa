#include "intfsm/foundation/ovel/SocketAt.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "intfsm/foundation/platform/Platform.h"

namespace Ovel {

namespace {

char const netnsDir[] = "/run/netns/";
char const ownNamespacePath[] = "/proc/thread-self/ns/net";

bool validNsName(char const * nsName) {
  size_t const length = std::strlen(nsName);
  if (length > maxNsNameBytes) return false;
  if (std::strchr(nsName, '/') != nullptr) return false;
  return std::strcmp(nsName, ".") != 0 && std::strcmp(nsName, "..") != 0;
}

// Closes without disturbing the errno that the caller is about to report.
void closeKeepingErrno(Platform::Calls const & calls, int fd) {
  int const saved = errno;
  calls.close(fd);
  errno = saved;
}

}  // namespace

bool isDefaultNsName(char const * nsName) {
  return nsName == nullptr || nsName[0] == '\0' || std::strcmp(nsName, defaultNsText) == 0;
}

SocketAtHook & socketAtHook() {
  static SocketAtHook hook = [](int domain, int type, int protocol, char const * nsName) {
    return socketAtThrough(Platform::calls(), domain, type, protocol, nsName);
  };
  return hook;
}

int socketAt(int domain, int type, int protocol, char const * nsName) {
  return socketAtHook()(domain, type, protocol, nsName);
}

int socketAtThrough(Platform::Calls const & calls, int domain, int type, int protocol, char const * nsName) {
  if (isDefaultNsName(nsName)) return calls.socket(domain, type | SOCK_CLOEXEC, protocol);
  if (!validNsName(nsName)) {
    errno = EINVAL;
    return -1;
  }

  char path[sizeof netnsDir + maxNsNameBytes];
  std::snprintf(path, sizeof path, "%s%s", netnsDir, nsName);
  int const target = calls.open(path, O_RDONLY | O_CLOEXEC);
  if (target < 0) return -1;
  int const own = calls.open(ownNamespacePath, O_RDONLY | O_CLOEXEC);
  if (own < 0) {
    closeKeepingErrno(calls, target);
    return -1;
  }
  if (calls.setns(target, CLONE_NEWNET) < 0) {
    closeKeepingErrno(calls, target);
    closeKeepingErrno(calls, own);
    return -1;
  }

  int const sd = calls.socket(domain, type | SOCK_CLOEXEC, protocol);
  int const socketErrno = errno;

  if (calls.setns(own, CLONE_NEWNET) < 0) {
    // The thread would go on creating sockets and reading devices of the wrong namespace.
    std::fprintf(stderr, "Ovel::socketAt: cannot return to the original network namespace after entering \"%s\": %s\n",
                 nsName, std::strerror(errno));
    std::abort();
  }
  calls.close(target);
  calls.close(own);
  errno = socketErrno;
  return sd;
}

}  // namespace Ovel
