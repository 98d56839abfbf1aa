#include "intfsm/KernelOperState/internal/NetlinkSocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "intfsm/KernelOperState/internal/Trace.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Fperror.h"

namespace KernelOperState {

int netlinkSocketOpen(Ovel::NamespaceName const & ns, char const * openedTrace, bool traceBinding) {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.charPtr());
  int const socketErrno = errno;  // a trace may write, and change errno, before perror reads it
  KOS_TRACE(8, openedTrace << sd);
  std::string const scope = "namespace " + std::string(ns.charPtr());
  if (sd < 0 && Vorn::isDescriptorShortage(socketErrno)) {
    std::string const text = Vorn::descriptorShortageIs(socketPurpose, scope, socketErrno);
    if (!text.empty()) KOS_TRACE(0, text);
    errno = socketErrno;
    return -1;
  }
  if (sd < 0) {
    errno = socketErrno;
    if (ns.isDefault()) fperror("socket");
    perror("socket");
    return -1;
  }
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (traceBinding) KOS_TRACE(8, "Binding to socket. Sd: " << sd);
  int const rc = Platform::calls().bind(sd, reinterpret_cast<sockaddr const *>(&addr), sizeof addr);
  if (rc < 0) {
    int const bindErrno = errno;
    KOS_TRACE(8, "Bind error: " << rc);
    errno = bindErrno;
    fperror("bind");
  }
  Vorn::descriptorOpened(sd, socketPurpose, scope);
  return sd;
}

}  // namespace KernelOperState
