// socketAt against the real kernel: sockets land in the named namespace, the thread comes back to
// its own, and nothing stays open on any path.
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
#include "tests/support/NetNs.h"

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
  if (::ioctl(sd, SIOCGIFINDEX, &request) < 0) return -errno;
  return request.ifr_ifindex;
}

uint64_t namespaceCookie(int sd) {
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  EXPECT_EQ(::getsockopt(sd, SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &length), 0) << std::strerror(errno);
  return cookie;
}

class SocketAtKernel : public IntfsmTest::NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    descriptors = IntfsmTest::openDescriptorCount();  // with the namespace fixture's own open
  }
  int descriptors = 0;
  ino_t const home = ownNamespaceInode();
};

TEST_F(SocketAtKernel, SocketSeesTheNamespacesDevicesAndTheThreadComesBack) {
  std::string const ns = netns().namespaceNew();
  std::string const other = netns().namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  auto const va0 = netns().link(ns, "va0");
  ASSERT_TRUE(va0.has_value());

  int const inside = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  ASSERT_GE(inside, 0) << std::strerror(errno);
  EXPECT_EQ(ownNamespaceInode(), home);
  EXPECT_EQ(ifindexVia(inside, "va0"), va0->ifindex);
  EXPECT_EQ(ifindexVia(inside, "vb0"), netns().link(ns, "vb0")->ifindex);
  EXPECT_NE(::fcntl(inside, F_GETFD) & FD_CLOEXEC, 0);

  // Sockets of one namespace share it; another namespace and the caller's own are apart.
  int const sameNs = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());
  int const otherNs = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, other.c_str());
  int const reference = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(sameNs, 0);
  ASSERT_GE(otherNs, 0);
  EXPECT_EQ(namespaceCookie(sameNs), namespaceCookie(inside));
  EXPECT_NE(namespaceCookie(otherNs), namespaceCookie(inside));
  EXPECT_NE(namespaceCookie(reference), namespaceCookie(inside));
  for (int sd : {sameNs, otherNs, inside}) ::close(sd);

  int const here = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, nullptr);
  ASSERT_GE(here, 0) << std::strerror(errno);
  EXPECT_EQ(namespaceCookie(here), namespaceCookie(reference));
  EXPECT_EQ(ifindexVia(here, "va0"), -ENODEV);
  ::close(here);
  ::close(reference);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(SocketAtKernel, FailuresLeaveTheThreadAtHomeAndNothingOpen) {
  std::string const ns = netns().namespaceNew();
  std::string const deleted = netns().namespaceNew();
  netns().namespaceDel(deleted);
  struct Case {
    char const * ns;
    int domain;
    int error;
  };
  // An address family the kernel does not have fails inside the namespace.
  for (Case const c : {Case{"intfsmt-no-such-namespace", AF_INET, ENOENT}, Case{deleted.c_str(), AF_INET, ENOENT},
                       Case{ns.c_str(), AF_MAX + 1, EAFNOSUPPORT}}) {
    SCOPED_TRACE(c.ns);
    errno = 0;
    EXPECT_LT(Ovel::socketAt(c.domain, SOCK_DGRAM, 0, c.ns), 0);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(ownNamespaceInode(), home);
  }
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

}  // namespace
