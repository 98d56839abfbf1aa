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
#include <thread>

#include "tests/support/Descriptors.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/NetNs.h"

namespace {

using IntfsmTest::FakePlatform;

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

class SocketAtKernel : public IntfsmTest::NetNsTest {};

TEST_F(SocketAtKernel, SocketSeesTheNamespacesDevicesAndTheThreadComesBack) {
  std::string const ns = netns().namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  auto const va0 = netns().link(ns, "va0");
  ASSERT_TRUE(va0.has_value());
  int const descriptors = IntfsmTest::openDescriptorCount();
  ino_t const home = ownNamespaceInode();

  int const inside = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  ASSERT_GE(inside, 0) << std::strerror(errno);
  EXPECT_EQ(ownNamespaceInode(), home);
  EXPECT_EQ(ifindexVia(inside, "va0"), va0->ifindex);
  EXPECT_EQ(ifindexVia(inside, "vb0"), netns().link(ns, "vb0")->ifindex);

  int const here = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, nullptr);
  ASSERT_GE(here, 0) << std::strerror(errno);
  EXPECT_EQ(ifindexVia(here, "va0"), -ENODEV);
  EXPECT_NE(namespaceCookie(inside), namespaceCookie(here));

  EXPECT_NE(::fcntl(inside, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(::fcntl(here, F_GETFD) & FD_CLOEXEC, 0);
  ::close(inside);
  ::close(here);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(SocketAtKernel, DefaultNamesOpenInTheCallersNamespace) {
  int const reference = ::socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(reference, 0);
  for (char const * name : {static_cast<char const *>(nullptr), "", Ovel::defaultNsText}) {
    int const sd = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, name);
    ASSERT_GE(sd, 0) << std::strerror(errno);
    EXPECT_EQ(namespaceCookie(sd), namespaceCookie(reference)) << (name ? name : "(null)");
    ::close(sd);
  }
  ::close(reference);
}

TEST_F(SocketAtKernel, SocketsOfOneNamespaceShareIt) {
  std::string const blue = netns().namespaceNew();
  std::string const red = netns().namespaceNew();
  int const blue1 = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, blue.c_str());
  int const blue2 = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, blue.c_str());
  int const red1 = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, red.c_str());
  ASSERT_GE(blue1, 0);
  ASSERT_GE(blue2, 0);
  ASSERT_GE(red1, 0);
  EXPECT_EQ(namespaceCookie(blue1), namespaceCookie(blue2));
  EXPECT_NE(namespaceCookie(blue1), namespaceCookie(red1));
  ::close(blue1);
  ::close(blue2);
  ::close(red1);
}

TEST_F(SocketAtKernel, OnlyTheCallingThreadMoves) {
  std::string const ns = netns().namespaceNew();
  ino_t const home = ownNamespaceInode();
  ino_t otherDuring = 0;
  std::thread other([&] {
    int const sd = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
    EXPECT_GE(sd, 0);
    otherDuring = ownNamespaceInode();
    ::close(sd);
  });
  other.join();
  EXPECT_EQ(otherDuring, home);
  EXPECT_EQ(ownNamespaceInode(), home);
}

TEST_F(SocketAtKernel, MissingNamespaceFailsWithEnoentAndLeaksNothing) {
  int const descriptors = IntfsmTest::openDescriptorCount();
  ino_t const home = ownNamespaceInode();
  errno = 0;
  EXPECT_LT(Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, "intfsmt-no-such-namespace"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ownNamespaceInode(), home);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(SocketAtKernel, DeletedNamespaceIsMissing) {
  std::string const ns = netns().namespaceNew();
  netns().namespaceDel(ns);
  EXPECT_LT(Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SocketAtKernel, RefusedSocketInsideLeavesTheThreadAtHome) {
  std::string const ns = netns().namespaceNew();
  int const descriptors = IntfsmTest::openDescriptorCount();
  ino_t const home = ownNamespaceInode();
  errno = 0;
  // An address family the kernel does not have.
  EXPECT_LT(Ovel::socketAt(AF_MAX + 1, SOCK_DGRAM, 0, ns.c_str()), 0);
  EXPECT_EQ(errno, EAFNOSUPPORT);
  EXPECT_EQ(ownNamespaceInode(), home);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

TEST_F(SocketAtKernel, InjectedSocketFailureInsideStillReturns) {
  std::string const ns = netns().namespaceNew();
  int const descriptors = IntfsmTest::openDescriptorCount();
  ino_t const home = ownNamespaceInode();
  {
    // Real namespace files and setns; only the socket call fails.
    FakePlatform fake;
    Ovel::Platform & b = fake.behaviour();
    Ovel::Platform const & real = Ovel::realPlatform();
    b.socketAt = real.socketAt;
    b.open = real.open;
    b.setns = real.setns;
    b.close = real.close;
    fake.failNext(FakePlatform::Kind::socket, EMFILE);
    errno = 0;
    EXPECT_LT(Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str()), 0);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(fake.count(FakePlatform::Kind::setns), 2u);
    EXPECT_EQ(fake.count(FakePlatform::Kind::close), 2u);
  }
  EXPECT_EQ(ownNamespaceInode(), home);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
}

}  // namespace
