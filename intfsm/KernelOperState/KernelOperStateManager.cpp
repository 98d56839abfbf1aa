#include "intfsm/KernelOperState/KernelOperStateManager.h"

#include <linux/if.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "intfsm/KernelOperState/internal/Trace.h"
#include "intfsm/foundation/vorn/Fperror.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {

Intfsm::TypeRegistration registration("KernelOperState::KernelOperStateManager", nullptr,
                                    {"nsNetlinkSockFd", "doSetOperState", "doSetOperStateInNs", "netlinkSocket",
                                     "operStatus"});

// Kernel operstate for a status, or -1 when the status is not one this library maps.
int kernelOperState(Interface::IntfOperStatus status) {
  switch (static_cast<int>(status)) {
    case 1:
      return IF_OPER_UP;
    case 2:
    case 5:
    case 6:
    case 7:
      return IF_OPER_DORMANT;
    default:
      return -1;
  }
}

}  // namespace

Vorn::Name const & KernelOperStateManager::name() const {
  static Vorn::Name const empty;
  return empty;
}

void KernelOperStateManager::nsNetlinkSockFdIs(Ovel::NamespaceName const & nsName, int32_t sd) {
  setEntry(nsNetlinkSockFd_, nsName, sd, &NotifieeConst::onNsNetlinkSockFd);
}

void KernelOperStateManager::nsNetlinkSockFdDel(Ovel::NamespaceName const & nsName) {
  delEntry(nsNetlinkSockFd_, nsName, &NotifieeConst::onNsNetlinkSockFd);
}

void KernelOperStateManager::nsNetlinkSockFdDelAll() {
  delAllEntries(nsNetlinkSockFd_, &NotifieeConst::onNsNetlinkSockFd);
}

void KernelOperStateManager::doSetOperState(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus) {
  KOS_TRACE(8, "doSetOperState" << "( " << deviceName << ", " << operStatus << " )");
  doSetOperStateInNs(deviceName, operStatus, Ovel::NamespaceName::defaultNamespace());
}

void KernelOperStateManager::doSetOperStateInNs(Vorn::String const & deviceName, Interface::IntfOperStatus operStatus,
                                                Ovel::NamespaceName const & nsName) {
  KOS_TRACE(8, "doSetOperStateInNs" << "( " << deviceName << ", " << operStatus << ", " << nsName << " )");
  Platform::Calls & platform = Platform::calls();
  int sd;
  bool localSocket = false;
  int socketErrno = 0;  // a trace may write, and change errno, before perror reads it
  if (int32_t const * cached = nsNetlinkSockFd_.find(nsName)) {
    sd = *cached;
  } else {
    KOS_TRACE(5, "creating local netlink socket");
    sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, nsName.charPtr());
    socketErrno = errno;
    localSocket = true;
  }
  KOS_TRACE(8, "doSetOperStateInNs" << " sd: " << sd);
  if (sd < 0) {
    VORN_ASSERT(localSocket == true);
    errno = socketErrno;
    if (nsName.isDefault()) fperror("socket");
    perror("socket");
    return;
  }
  if (localSocket) {
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    int rc = platform.bind(sd, reinterpret_cast<sockaddr const *>(&addr), sizeof addr);
    if (rc < 0) {
      int const bindErrno = errno;
      KOS_TRACE(8, "Bind error: " << rc);
      errno = bindErrno;
      fperror("bind");
    }
  }
  if (deviceName.empty()) {
    KOS_TRACE(1, "not sending IFLA_OPERSTATE message because deviceName is empty");
  } else if (int kernelValue = kernelOperState(operStatus); kernelValue < 0) {
    KOS_TRACE(0, "unknown operStatus: " << operStatus);
  } else if (!Interface::doSetNetlinkOperState(sd, deviceName.charPtr(), 111, kernelValue)) {
    exit(1);
  }
  if (localSocket) platform.close(sd);
}

}  // namespace KernelOperState
