// The oper-state request against the real kernel, on a veth pair inside a namespace of the test.
#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstring>

#include "intfsm/foundation/ovel/SocketAt.h"
#include "tests/support/KernelModuleTest.h"
#include "tests/support/TraceCapture.h"

namespace {

using ::testing::ElementsAre;

// A routing netlink socket in `ns`, bound the way its users bind it.
int netlinkSocketIn(std::string const & ns) {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());
  EXPECT_GE(sd, 0) << std::strerror(errno);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  EXPECT_EQ(::bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local), 0) << std::strerror(errno);
  return sd;
}

class NetlinkOperStateKernel : public IntfsmTest::KernelModuleTest {
 protected:
  // A veth pair va0 / vb0 in a fresh namespace, both ends up and running.
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    ns = netns().namespaceNew();
    vethUp(ns, "va0", "vb0");
    sd = netlinkSocketIn(ns);
  }
  void TearDown() override {
    if (sd >= 0) ::close(sd);
    KernelModuleTest::TearDown();
  }

  IntfsmTest::LinkState va0() { return netns().link(ns, "va0").value(); }

  std::string ns;
  int sd = -1;
};

// A device the namespace does not have (never made, in another namespace, renamed away) is refused:
// traced, not a failure, and the socket serves the next request.
TEST_F(NetlinkOperStateKernel, RefusalsAreTracedAndSurvived) {
  std::string const other = netns().namespaceNew();
  netns().vethPairNew(other, "vc0", "vd0");
  netns().linkDown(ns, "vb0");  // a device is renamed while down
  netns().linkRename(ns, "vb0", "vb1");
  netns().linkUp(ns, "vb1");
  ASSERT_TRUE(netns().waitForOperState(ns, "va0", IF_OPER_UP));
  IntfsmTest::TraceCapture trace{{"Interface", 1}};
  for (char const * device : {"nosuch0", "vc0", "vb0"}) {
    EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, device, 111, IF_OPER_DORMANT)) << device;
  }
  EXPECT_THAT(trace.texts("Interface"),
              ElementsAre("IFLA_OPERSTATE 5 for device nosuch0 refused: No such device",
                          "IFLA_OPERSTATE 5 for device vc0 refused: No such device",
                          "IFLA_OPERSTATE 5 for device vb0 refused: No such device"));
  EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, "va0", 111, IF_OPER_DORMANT));
  EXPECT_EQ(va0().operState, IF_OPER_DORMANT);
  EXPECT_EQ(trace.size(), 3u);
}

// DORMANT and UP applied on the device are in the oper-state root's kernel tests.
TEST_F(NetlinkOperStateKernel, AcceptedOnAnAdminDownDeviceButNotApplied) {
  netns().linkDown(ns, "va0");
  EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, "va0", 111, IF_OPER_DORMANT));
  EXPECT_EQ(va0().operState, IF_OPER_DOWN);
  EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, "va0", 111, IF_OPER_UP));
  EXPECT_EQ(va0().operState, IF_OPER_DOWN);
}

TEST_F(NetlinkOperStateKernel, StaleAnswersOnTheSocketDoNotConfuseTheNext) {
  // Leave the refusal of an unanswered-for request on the socket, with the same sequence number.
  alignas(nlmsghdr) char request[128] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(request);
  nlh->nlmsg_type = RTM_SETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  nlh->nlmsg_seq = 111;
  static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)))->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(nlh, IFLA_IFNAME, "nosuch0");
  mnl_attr_put_u8(nlh, IFLA_OPERSTATE, IF_OPER_DORMANT);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ASSERT_EQ(::sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel),
            static_cast<ssize_t>(nlh->nlmsg_len));
  nlh->nlmsg_seq = 7;
  ASSERT_GT(::sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel), 0);

  EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, "va0", 111, IF_OPER_DORMANT)) << std::strerror(errno);
  EXPECT_EQ(va0().operState, IF_OPER_DORMANT);
}

}  // namespace
