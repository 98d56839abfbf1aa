// The oper-state request against the real kernel, on a veth pair inside a namespace of the test.
// Refusals and DORMANT / UP applied on devices are in the oper-state root's kernel tests.
#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstring>

#include "intfsm/foundation/ovel/SocketAt.h"
#include "tests/support/KernelModuleTest.h"

namespace {

using NetlinkOperStateKernel = IntfsmTest::KernelModuleTest;

TEST_F(NetlinkOperStateKernel, StaleAnswersOnTheSocketDoNotConfuseTheNext) {
  std::string const ns = netns().namespaceNew();
  vethUp(ns, "va0", "vb0");
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());  // bound as its users bind it
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ASSERT_EQ(::bind(sd, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel), 0) << std::strerror(errno);
  // Leave the refusal of an unanswered-for request on the socket, with the same sequence number.
  alignas(nlmsghdr) char request[128] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(request);
  nlh->nlmsg_type = RTM_SETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  nlh->nlmsg_seq = 111;
  static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)))->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(nlh, IFLA_IFNAME, "nosuch0");
  mnl_attr_put_u8(nlh, IFLA_OPERSTATE, IF_OPER_DORMANT);
  for (uint32_t seq : {111, 7}) {
    nlh->nlmsg_seq = seq;
    ASSERT_EQ(::sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel),
              static_cast<ssize_t>(nlh->nlmsg_len));
  }
  EXPECT_TRUE(Interface::doSetNetlinkOperState(sd, "va0", 111, IF_OPER_DORMANT)) << std::strerror(errno);
  EXPECT_EQ(netns().link(ns, "va0")->operState, IF_OPER_DORMANT);
  ::close(sd);
}

}  // namespace
