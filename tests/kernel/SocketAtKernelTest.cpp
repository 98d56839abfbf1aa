// socketAt against the real kernel: sockets land in the named namespace, the thread comes back to
// its own, and nothing stays open on any path (the fixture checks at tear-down).
#include "intfsm/foundation/ovel/SocketAt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tests/support/Descriptors.h"
#include "tests/support/KernelModuleTest.h"

namespace {

ino_t ownNamespaceInode() {
  struct stat st {};
  EXPECT_EQ(::stat("/proc/thread-self/ns/net", &st), 0) << std::strerror(errno);
  return st.st_ino;
}

// The ifindex of `device` as seen through socket `sd`, or -errno.
int ifindexVia(int sd, char const * device) {
  ifreq request{};
  std::strncpy(request.ifr_name, device, IFNAMSIZ - 1);
  return ::ioctl(sd, SIOCGIFINDEX, &request) < 0 ? -errno : request.ifr_ifindex;
}

uint64_t namespaceCookie(int sd) {
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  EXPECT_EQ(::getsockopt(sd, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length), 0) << std::strerror(errno);
  return cookie;
}

class SocketAtKernel : public IntfsmTest::KernelModuleTest {
 protected:
  ino_t const home = ownNamespaceInode();
};

// Sockets of one namespace share it; another namespace and the caller's own are apart.
TEST_F(SocketAtKernel, TheSocketSeesTheNamespacesDevicesAndTheThreadComesBack) {
  std::string const ns = netns().namespaceNew(), other = netns().namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  int const inside = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  ASSERT_GE(inside, 0) << std::strerror(errno);
  EXPECT_EQ(std::tuple(ownNamespaceInode(), ifindexVia(inside, "va0"), IntfsmTest::isCloseOnExec(inside)),
            std::tuple(home, netns().link(ns, "va0")->ifindex, true));
  int const sameNs = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());
  int const otherNs = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, other.c_str());
  int const here = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, nullptr);
  int const reference = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(std::tuple(namespaceCookie(sameNs), namespaceCookie(otherNs) != namespaceCookie(inside), namespaceCookie(here),
                       ifindexVia(here, "va0")),
            std::tuple(namespaceCookie(inside), true, namespaceCookie(reference), -ENODEV));
  for (int sd : {sameNs, otherNs, inside, here, reference}) ::close(sd);
}

// A namespace that is not there (never made, or deleted), or an address family the kernel does not
// have (failing inside the namespace).
TEST_F(SocketAtKernel, FailuresLeaveTheThreadAtHomeAndNothingOpen) {
  std::string const ns = netns().namespaceNew(), deleted = netns().namespaceNew();
  netns().namespaceDel(deleted);
  struct Case {
    char const * ns;
    int domain;
    int error;
  };
  for (Case const c : {Case{"intfsmt-no-such-namespace", AF_INET, ENOENT}, Case{deleted.c_str(), AF_INET, ENOENT},
                       Case{ns.c_str(), AF_MAX + 1, EAFNOSUPPORT}}) {
    errno = 0;
    EXPECT_LT(Ovel::socketAt(c.domain, SOCK_DGRAM, 0, c.ns), 0);
    int const error = errno;
    EXPECT_EQ(std::tuple(error, ownNamespaceInode()), std::tuple(c.error, home)) << c.ns;
  }
}

}  // namespace
