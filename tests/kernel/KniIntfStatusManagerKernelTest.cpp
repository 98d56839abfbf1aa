// Kernel interface status against the real kernel, in namespaces the test makes: the root wired as an
// agent wires it publishes each veth that has an IntfStatus by interface id and by its real ifindex,
// and follows deletion, re-creation, carrier and namespace moves, also while events are being lost.
#include <gtest/gtest.h>

#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "tests/support/KernelModuleTest.h"

using Ovel::IntfId;
using Ovel::NamespaceName;

namespace {

class KniIntfStatusManagerKernel : public IntfsmTest::KernelModuleTest {
 protected:
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    root = Interface::netNsIntfStatusManagerRootFactory(all, locals, true);
  }
  void TearDown() override {
    root = nullptr;
    statuses.clear();
    KernelModuleTest::TearDown();
  }

  // A namespace with its kernel link table followed and its manager.
  std::string namespaceNew() {
    std::string const ns = netns().namespaceNew();
    auto kni = KernelNetInfo::Status::statusNew(ns, NamespaceName(ns));
    kni->enabledIs(true);
    statuses[ns] = kni;
    root->intfStatusManagerIs(Interface::deviceIntfStatusDirFactory(ns), kni, NamespaceName(ns));
    return ns;
  }
  Vorn::Ptr<Interface::KniIntfStatusManager> manager(std::string const & ns) {
    return root->intfStatusManager(NamespaceName(ns));
  }
  void interfaceNew(char const * id, char const * device, std::string const & ns) {
    all->intfStatusIs(Interface::intfStatusFactory(IntfId(id)));
    all->intfStatus(IntfId(id))->deviceNameIs(device);
    locals->intfStatusLocalIs(Interface::intfStatusLocalFactory(IntfId(id)));
    locals->intfStatusLocal(IntfId(id))->netNsNameIs(NamespaceName(ns));
  }
  uint32_t kernelIfIndex(std::string const & ns, char const * device) {
    auto const link = netns().link(ns, device);
    return link ? static_cast<uint32_t>(link->ifindex) : 0;
  }
  // The ifindex `id` is published with in `ns`, 0 when it is not; its entry by ifindex must agree.
  uint32_t published(std::string const & ns, char const * id) {
    auto const & kis = manager(ns)->kernelIntfStatusDir();
    auto const record = kis->intfStatusAndDeviceName(IntfId(id));
    if (!record.ifIndex) return 0;
    EXPECT_EQ(kis->intfStatusByIfIndex(record.ifIndex), record);
    return record.ifIndex;
  }

  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> root;
  std::map<std::string, Vorn::Ptr<KernelNetInfo::Status>> statuses;
};

TEST_F(KniIntfStatusManagerKernel, PublishesVethsByRealIfIndexThroughDeletionRecreationAndCarrier) {
  std::string const ns = namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  interfaceNew("Ethernet1", "va0", ns);
  interfaceNew("Ethernet2", "vb0", ns);
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1") && published(ns, "Ethernet2"); }));
  uint32_t const first = kernelIfIndex(ns, "va0");
  EXPECT_EQ(std::tuple(published(ns, "Ethernet1"), published(ns, "Ethernet2")), std::tuple(first, kernelIfIndex(ns, "vb0")));

  netns().linkDel(ns, "va0");  // takes its peer along
  ASSERT_TRUE(runUntil([&] { return !published(ns, "Ethernet1") && !published(ns, "Ethernet2"); }));
  EXPECT_EQ(manager(ns)->kernelIntfStatusDir()->intfStatusByIfIndexs(), 0u);
  netns().vethPairNew(ns, "va0", "vb0");
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1") == kernelIfIndex(ns, "va0"); }));
  EXPECT_NE(published(ns, "Ethernet1"), first);

  // Only devices with carrier: both ends down, then up, then the peer down and up again.
  manager(ns)->omitNonRunningKernelDevicesIs(true);
  EXPECT_FALSE(published(ns, "Ethernet1"));
  netns().linkUp(ns, "va0"), netns().linkUp(ns, "vb0");
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1") && published(ns, "Ethernet2"); }));
  netns().linkDown(ns, "vb0");
  ASSERT_TRUE(runUntil([&] { return !published(ns, "Ethernet1"); }));
  netns().linkUp(ns, "vb0");
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1") == kernelIfIndex(ns, "va0"); }));
}

TEST_F(KniIntfStatusManagerKernel, AnInterfaceMovedToAnotherNamespaceIsPublishedThereWithThatDevice) {
  std::string const ns1 = namespaceNew();
  std::string const ns2 = namespaceNew();
  netns().vethPairNew(ns1, "va0", "vb0");
  netns().vethPairNew(ns2, "vx0", "vy0");  // so that va0 has another ifindex in ns2
  netns().vethPairNew(ns2, "va0", "vb0");
  ASSERT_NE(kernelIfIndex(ns1, "va0"), kernelIfIndex(ns2, "va0"));
  interfaceNew("Ethernet1", "va0", ns1);
  ASSERT_TRUE(runUntil([&] { return published(ns1, "Ethernet1") == kernelIfIndex(ns1, "va0"); }));
  ASSERT_TRUE(runUntil([&] { return statuses[ns2]->root()->interfaceByDeviceNameHas("va0"); }));
  EXPECT_FALSE(published(ns2, "Ethernet1"));

  locals->intfStatusLocal(IntfId("Ethernet1"))->netNsNameIs(NamespaceName(ns2));
  EXPECT_EQ(std::tuple(published(ns1, "Ethernet1"), published(ns2, "Ethernet1")), std::tuple(0u, kernelIfIndex(ns2, "va0")));
}

// va0 is deleted while the monitor's receive buffer is full, so that its deletion is lost, and is
// re-created once there is room again: the new device arrives as an event while the table still has
// the old one, before any re-dump. The manager must see the old one go first.
TEST_F(KniIntfStatusManagerKernel, ADeviceRecreatedWhileEventsAreLostIsRemovedThenAdded) {
  std::string const ns = namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  netns().vethPairNew(ns, "vc0", "vd0");
  interfaceNew("Ethernet1", "va0", ns);
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1"); }));
  uint32_t const old = published(ns, "Ethernet1");

  auto const & kni = statuses[ns];
  kni->redumpIntervalIs(60);  // no re-dump until the test asks for one
  kni->rcvBufBytesIs(1024);   // the kernel's minimum: a message or two
  IntfsmTest::CommandResult const burst =
      netns().runIn(ns, "i=0; while [ $i -lt 40 ]; do echo link set vc0 up; echo link set vc0 down; i=$((i+1)); "
                        "done | ip -batch - && ip link del va0");
  ASSERT_EQ(burst.status, 0) << burst.output;
  runUntil([] { return false; }, 0.2);  // drain what got through
  ASSERT_GE(kni->overruns(), 1u);
  ASSERT_EQ(kni->root()->interfaceByDeviceName("va0").ifIndex(), old) << "the deletion was not lost";

  kni->rcvBufBytesIs(KernelNetInfo::Status::defaultRcvBufBytes);
  netns().vethPairNew(ns, "va0", "vb0");
  ASSERT_TRUE(runUntil([&] { return published(ns, "Ethernet1") == kernelIfIndex(ns, "va0"); }));
  EXPECT_EQ(std::tuple(published(ns, "Ethernet1") != old, kni->redumps()), std::tuple(true, 0u));

  kni->redumpIntervalIs(0);
  ASSERT_TRUE(runUntil([&] { return kni->synced(); }));
  EXPECT_EQ(std::tuple(published(ns, "Ethernet1"), manager(ns)->kernelIntfStatusDir()->intfStatusByIfIndexs()),
            std::tuple(kernelIfIndex(ns, "va0"), 1u));
}

}  // namespace
