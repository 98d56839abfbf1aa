// The oper-state root wired as an agent wires it, against the real kernel: interface statuses become
// the operational state of veth devices in two namespaces, namespaces that come and go get and lose
// their cached netlink socket (and, with convergence on, their link monitor), and with convergence on
// the decided state outlasts what the kernel does by itself (carrier flaps, devices that appear late or
// are re-created).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <linux/if.h>

#include <chrono>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "tests/support/KernelModuleTest.h"
#include "tests/support/TraceCapture.h"

using Ovel::IntfId;
using Ovel::NamespaceName;
using ::testing::ElementsAre;

namespace {

class KernelOperStateKernelTest : public IntfsmTest::KernelModuleTest {
 protected:
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    ns1 = netns().namespaceNew();
    ns2 = netns().namespaceNew();
    vethUp(ns1, "va0", "vb0");
    vethUp(ns2, "vc0", "vd0");

    // The expected wiring by the owning agent.
    root = KernelOperState::rootFactory("kos");
    root->kosmIs();
    root->intfStatusDirIs("intfStatus");
    root->intfStatusLocalDirIs("intfStatusLocal");
    root->netNsCollectionIs("netNs");
    root->netNsManagerIs(root->netNsCollection());
    root->intfStatusOperStatusSmIs(root->intfStatusDir(), root->intfStatusLocalDir(), root->kosm(),
                                   root->netNsCollection());
  }
  void TearDown() override {
    // Nothing is left open: the cached sockets, which the state machine never closes, closed by hand
    // as an agent that drops the subsystem would; the link monitors go with the manager.
    if (root) {
      for (auto const & e : root->kosm()->nsNetlinkSockFdIter()) Vorn::descriptorClosed(e.value), close(e.value);
      root = nullptr;
    }
    KernelModuleTest::TearDown();
  }

  bool cached(std::string const & ns) { return root->kosm()->nsNetlinkSockFdHas(NamespaceName(ns)); }
  int operState(std::string const & ns, char const * device) {
    auto link = netns().link(ns, device);
    return link ? link->operState : -1;
  }
  // The peer down until the device has lost its carrier, then up again.
  void flap(std::string const & ns, char const * device, char const * peer) {
    netns().linkDown(ns, peer);
    ASSERT_TRUE(netns().waitForOperState(ns, device, IF_OPER_LOWERLAYERDOWN));
    netns().linkUp(ns, peer);
  }
  // The loop runs until the device shows `state` with `reassertions` made in all, then 50 ms more, in
  // which it stays so and nothing more is sent.
  bool settles(std::string const & ns, char const * device, int state, uint64_t reassertions) {
    auto const done = [&] { return root->kosm()->reassertions() == reassertions && operState(ns, device) == state; };
    return runUntil(done) && !runUntil([] { return false; }, 0.05) && done();
  }

  Vorn::Ptr<Interface::IntfStatus> addInterface(char const * id, char const * device, std::string const & ns,
                                                Interface::IntfOperStatus s) {
    auto status = Interface::intfStatusFactory(IntfId(id));
    status->deviceNameIs(device);
    status->operStatusIs(s);
    auto local = Interface::intfStatusLocalFactory(IntfId(id));
    local->netNsNameIs(NamespaceName(ns));
    root->intfStatusLocalDir()->intfStatusLocalIs(local);
    root->intfStatusDir()->intfStatusIs(status);
    return status;
  }

  Vorn::Ptr<KernelOperState::Root> root;
  std::string ns1, ns2;
};

TEST_F(KernelOperStateKernelTest, OperStatusReachesTheDeviceInItsNamespace) {
  ASSERT_TRUE(runUntil([&] { return cached(ns1) && cached(ns2) && cached("default"); }));

  auto e1 = addInterface("Ethernet1", "va0", ns1, Interface::intfOperDown);
  auto e2 = addInterface("Ethernet2", "vc0", ns2, Interface::intfOperUp);
  EXPECT_TRUE(netns().waitForOperState(ns1, "va0", IF_OPER_DORMANT));
  EXPECT_TRUE(netns().waitForOperState(ns2, "vc0", IF_OPER_UP));
  EXPECT_FALSE(netns().link(ns1, "va0")->flags & IFF_RUNNING);  // DORMANT shows as no carrier

  e1->operStatusIs(Interface::intfOperUp);
  e2->operStatusIs(Interface::intfOperLowerLayerDown);
  EXPECT_TRUE(netns().waitForOperState(ns1, "va0", IF_OPER_UP));
  EXPECT_TRUE(netns().waitForOperState(ns2, "vc0", IF_OPER_DORMANT));
  // The peers were never named: untouched.
  EXPECT_EQ(std::tuple(netns().link(ns1, "vb0")->operState, netns().link(ns2, "vd0")->operState), std::tuple(IF_OPER_UP, IF_OPER_UP));

  // A device renamed in the kernel is followed once the status names it.
  netns().linkRename(ns2, "vd0", "vd9");
  e2->deviceNameIs("vd9");
  EXPECT_TRUE(netns().waitForOperState(ns2, "vd9", IF_OPER_DORMANT));
}

TEST_F(KernelOperStateKernelTest, NamespacesCreatedAndDeletedAfterStartUp) {
  ASSERT_TRUE(runUntil([&] { return cached(ns1) && cached(ns2); }));
  int const withTwo = descriptorsOpened();

  std::string ns3 = netns().namespaceNew();
  ASSERT_TRUE(runUntil([&] { return cached(ns3); }));
  EXPECT_EQ(descriptorsOpened(), withTwo + 1);  // its cached socket; convergence is off

  vethUp(ns3, "ve0", "vf0");
  auto e3 = addInterface("Ethernet3", "ve0", ns3, Interface::intfOperDown);
  EXPECT_TRUE(netns().waitForOperState(ns3, "ve0", IF_OPER_DORMANT));

  root->operStateConvergenceIs(true);  // a link monitor per cached socket
  EXPECT_EQ(descriptorsOpened(), withTwo + 1 + static_cast<int>(root->kosm()->nsNetlinkSockFds()));
  netns().namespaceDel(ns3);
  ASSERT_TRUE(runUntil([&] { return !cached(ns3); }));
  EXPECT_EQ(descriptorsOpened(), withTwo + static_cast<int>(root->kosm()->nsNetlinkSockFds()));
}

// The kernel recomputes the state on every carrier change: DORMANT becomes UP again, and under
// IFLA_LINKMODE dormant UP becomes DORMANT. Each flap takes one request to undo, until convergence is off.
TEST_F(KernelOperStateKernelTest, DecidedStateOutlastsCarrierFlapsUntilConvergenceIsOff) {
  root->operStateConvergenceIs(true);
  ASSERT_TRUE(runUntil([&] { return cached(ns1) && cached(ns2); }));
  ASSERT_EQ(netns().runIn(ns2, "ip link set dev vc0 mode dormant").status, 0);
  addInterface("Ethernet1", "va0", ns1, Interface::intfOperDown);
  addInterface("Ethernet2", "vc0", ns2, Interface::intfOperUp);
  ASSERT_TRUE(netns().waitForOperState(ns1, "va0", IF_OPER_DORMANT));
  struct Case {
    std::string ns;
    char const * device;
    char const * peer;
    int decided;
    int kernelOwn;  // what the kernel makes of a flap
  } const cases[] = {{ns1, "va0", "vb0", IF_OPER_DORMANT, IF_OPER_UP}, {ns2, "vc0", "vd0", IF_OPER_UP, IF_OPER_DORMANT}};
  uint64_t sent = 0;
  for (auto const & c : cases) {
    for (int i = 1; i <= 10; ++i) {
      flap(c.ns, c.device, c.peer);
      EXPECT_TRUE(settles(c.ns, c.device, c.decided, ++sent)) << c.device << " flap " << i;
    }
  }

  int const withMonitors = descriptorsOpened();
  int const monitors = static_cast<int>(root->kosm()->nsNetlinkSockFds());
  root->operStateConvergenceIs(false);
  EXPECT_EQ(descriptorsOpened(), withMonitors - monitors);
  for (auto const & c : cases) {
    flap(c.ns, c.device, c.peer);
    EXPECT_TRUE(settles(c.ns, c.device, c.kernelOwn, sent)) << c.device;
  }
}

TEST_F(KernelOperStateKernelTest, DeviceThatAppearsLaterOrIsRecreatedGetsTheDecidedState) {
  root->operStateConvergenceIs(true);
  ASSERT_TRUE(runUntil([&] { return cached(ns2); }));
  IntfsmTest::TraceCapture trace{{"Interface", 1}};
  addInterface("Ethernet3", "vz0", ns2, Interface::intfOperDown);
  EXPECT_THAT(trace.texts("Interface"), ElementsAre("IFLA_OPERSTATE 5 for device vz0 refused: No such device"));
  int ifIndex = 0;
  for (char const * round : {"created", "re-created"}) {
    SCOPED_TRACE(round);
    auto const start = std::chrono::steady_clock::now();
    netns().vethPairNew(ns2, "vz0", "vz1");
    netns().linkUp(ns2, "vz0");
    netns().linkUp(ns2, "vz1");
    EXPECT_TRUE(runUntil([&] { return operState(ns2, "vz0") == IF_OPER_DORMANT; }, 1.0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_NE(netns().link(ns2, "vz0")->ifindex, ifIndex);
    ifIndex = netns().link(ns2, "vz0")->ifindex;
    netns().linkDel(ns2, "vz0");
  }
  EXPECT_EQ(trace.size(), 1u);
}

}  // namespace
