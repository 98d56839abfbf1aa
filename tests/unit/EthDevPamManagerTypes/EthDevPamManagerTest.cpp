// The packet-access manager and the bridge interface filter over hand-filled directories, with the
// kernel replaced by the fake platform. The bundle's sockets must be watched by the real loop, so the
// fake hands out one end of a socket pair as each packet socket.
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using IntfsmTest::FakePlatform;
using Kind = IntfsmTest::FakePlatform::Kind;
using Vorn::Ptr;

namespace {

Ovel::IntfId id(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i)); }

class EthDevPamManagerTest : public IntfsmTest::ModuleTest {
 protected:
  EthDevPamManagerTest() : ModuleTest("EthDevPamManagerTypes") {
    fake.behaviour().socketAt = [this](int, int, int, char const *) {
      int ends[2];
      if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) < 0) return -1;
      peers.push_back(ends[1]);
      return ends[0];
    };
    manager->ethProtocolIs(0x88b5);
  }
  ~EthDevPamManagerTest() override {
    manager = nullptr;
    for (int fd : peers) close(fd);
  }
  void device(int i, uint32_t ifIndex) {
    devices->intfStatusAndDeviceNameIs(id(i), {intfStatusFactory(id(i)), "et" + std::to_string(i), ifIndex});
  }
  void want(int i, uint32_t ifIndex) {
    device(i, ifIndex);
    desired->intfDesiredIs(id(i), true);
  }
  Ptr<Ovel::EthDevPam> pam(int i) { return Vorn::ptr_cast<Ovel::EthDevPam>(pams->intfPam(id(i))); }
  size_t count(std::string const & text) {
    auto const t = traces();
    return std::count_if(t.begin(), t.end(), [&](std::string const & s) { return s.starts_with(text); });
  }
  size_t attached() {
    auto const c = fake.calls(Kind::setsockopt);
    return std::count_if(c.begin(), c.end(), [](auto const & x) { return x.b == SO_ATTACH_FILTER; });
  }

  std::vector<int> peers;
  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamManager> manager = ethDevPamManagerFactory(desired, pams, devices);
};

TEST_F(EthDevPamManagerTest, EnablingWithAndWithoutReuseLendsTheSavedPacketsToEveryNewPam) {
  for (bool reuse : {false, true}) {
    SCOPED_TRACE(reuse);
    manager->pktReuseIs(reuse);
    manager->enableBulkPamReadIs(true);
    manager->socketReadLimitIs(reuse ? 15 : 3);
    manager->handleInitialized();
    manager->enabledIs(true);
    want(1, 7);
    want(2, 8);
    EXPECT_EQ(manager->edpBundle()->enableBulkPamRead(), reuse);
    EXPECT_EQ(count("Turning off enableBulkPamRead as the pkts cannot be reused"), reuse ? 0u : 1u);
    EXPECT_EQ(manager->savedPackets(), reuse ? 15u : 0u);
    for (int i : {1, 2}) {
      EXPECT_EQ(std::vector<long>({pam(i)->ifIndex(), pam(i)->ethProtocol(), pam(i)->sd(), pam(i)->enabled(),
                                   pam(i)->socketReadLimit(), pam(i)->savedPackets()}),
                std::vector<long>({6 + i, 0x88b5, manager->edpBundle()->sd(), 1, reuse ? 15 : 3, reuse ? 15 : 0}));
      for (uint16_t k = 0; k < pam(i)->savedPackets(); ++k) EXPECT_EQ(pam(i)->savedPacket(k), manager->savedPacket(k));
    }
    EXPECT_EQ(manager->edpBundle()->sdRef(), 2);
    manager->enabledIs(false);
    desired->intfDesiredDelAll();
    trace.clear();
  }
}

TEST_F(EthDevPamManagerTest, AStatusChangeKeepsThePamUnlessTheIfIndexChanges) {
  manager->handleInitialized();
  manager->enabledIs(true);
  want(1, 7);
  Ptr<Ovel::EthDevPam> const first = pam(1);
  devices->intfStatusAndDeviceNameIs(id(1), {nullptr, "et1", 7});  // same device, the status changed
  EXPECT_EQ(pam(1), first);
  EXPECT_EQ(count("Pam for Ethernet1 already exists"), 1u);
  trace.clear();
  device(1, 9);  // re-created under the same interface
  EXPECT_THAT(traces(), testing::IsSupersetOf({"Deleting stale pam for Ethernet1", "Creating pam for Ethernet1 / et1 ifIndex 9"}));
  EXPECT_NE(pam(1), first);
  EXPECT_EQ(std::vector<long>({first->enabled(), first->sd(), pam(1)->ifIndex(), manager->edpBundle()->sdRef()}),
            std::vector<long>({0, -1, 9, 1}));  // the stale one gave its count back
  desired->intfDesiredIs(id(1), false);
  EXPECT_EQ(std::vector<long>({pams->intfPams(), manager->pams(), manager->edpBundle()->sdRef()}),
            std::vector<long>({0, 0, 0}));
}

TEST_F(EthDevPamManagerTest, DeferredCreationIsOneInterfacePerPassAndFairWhileWithdrawalIsImmediate) {
  int const n = 1000;
  manager->deferIs(true);
  manager->handleInitialized();
  for (int i = 1; i <= n; ++i) want(i, uint32_t(i));
  manager->enabledIs(true);
  EXPECT_EQ(pams->intfPams(), 0u);  // nothing before the loop runs
  desired->intfDesiredDel(id(n));
  int passes = 0;
  Ovel::IntfId hot;  // processed first: re-queued on every pass, it must not keep the others waiting
  while (pams->intfPams() < uint32_t(n - 1) && passes < 3 * n) {
    trace.clear();
    runOnce();
    ++passes;
    ASSERT_LE(count("Creating pam for") + count("Pam for "), 1u) << "pass " << passes;
    if (passes == 1) hot = pams->intfPamIter().begin()->key;
    devices->intfStatusAndDeviceNameNotify(hot);
  }
  EXPECT_EQ(pams->intfPams(), uint32_t(n - 1));
  EXPECT_LE(passes, n + 2);
  EXPECT_FALSE(pams->intfPam(id(n)));
  desired->intfDesiredIs(id(1), false);  // withdrawn at once, no pass
  EXPECT_FALSE(pams->intfPam(id(1)));
}

TEST_F(EthDevPamManagerTest, NotificationsWhileDisabledAreCaughtUpAndDisablingClearsEachDescriptorFirst) {
  EXPECT_DEATH(manager->enabledIs(true), "EthDevPamManagerTypes: assertion \"! enabled\\(\\)\"");
  manager->handleInitialized();
  want(1, 7);
  EXPECT_EQ(count("Not enabled so ignoring notification for Ethernet1"), 2u);  // its record, then its wish
  manager->enabledIs(true);
  want(2, 8);
  EXPECT_EQ(pams->intfPams(), 2u);
  Ovel::SockFilterProgram const program{{BPF_RET | BPF_K, 0, 0, 0xffff}};
  manager->filterProgramIs(program);
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});  // equal: nothing
  EXPECT_EQ(attached(), 1u);
  struct Watch : EthDevPamCollection::NotifieeConst {
    void onIntfPam(Ovel::IntfId const & i) override { sds.push_back(pam[i]->sd()); }
    std::map<Ovel::IntfId, Ptr<Ovel::EthDevPam>> pam;
    std::vector<int> sds;
  };
  Ptr<Watch> watch = new Watch;
  watch->pam = {{id(1), pam(1)}, {id(2), pam(2)}};
  watch->notifierIs(pams);
  int const sd = manager->edpBundle()->sd();
  manager->enabledIs(false);
  EXPECT_EQ(watch->sds, std::vector<int>({-1, -1}));
  EXPECT_EQ(std::vector<long>({manager->edpBundle()->sd(), manager->pams(), fcntl(sd, F_GETFD)}), std::vector<long>({-1, 0, -1}));
  EXPECT_FALSE(manager->ethDevPamBundleActivitySm());
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { manager->sockPrioIs(16); }),
            "EthDevPamManager::sockPrio < 0 or > 15 not allowed");
}

TEST_F(EthDevPamManagerTest, FailuresLeaveNothingPublishedNorCountedAndNoPamOnAClosedSocket) {
  // The kernel refuses an empty program, as SO_ATTACH_FILTER does.
  fake.behaviour().setsockopt = [base = fake.behaviour().setsockopt](int fd, int l, int o, void const * v, socklen_t n) {
    if (o == SO_ATTACH_FILTER && static_cast<sock_fprog const *>(v)->len == 0) return errno = EINVAL, -1;
    return base(fd, l, o, v, n);
  };
  manager->handleInitialized();
  manager->enabledIs(true);
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
  EXPECT_EQ(count("Socket not yet created as no EthDevPam enabled yet. Ignore"), 1u);
  want(1, 7);
  EXPECT_EQ(attached(), 1u);  // the first socket has the program set before it existed

  fake.failNext(Kind::setsockopt, ENOBUFS);  // the receive buffer, resized for two
  want(2, 8);
  EXPECT_EQ(count("Unable to enable pam for device et2 for intf Ethernet2 errno 105"), 1u);
  EXPECT_EQ(std::vector<long>({pams->intfPams(), manager->pams(), manager->edpBundle()->sd()}), std::vector<long>({0, 0, -1}));
  advanceAndRun(0);  // Ethernet1 again, on a new socket
  ASSERT_TRUE(pam(1));
  devices->intfStatusAndDeviceNameNotify(id(2));  // its next notification
  EXPECT_EQ(std::vector<long>({pam(1)->sd(), pam(2)->sd(), manager->edpBundle()->sdRef()}),
            std::vector<long>({manager->edpBundle()->sd(), manager->edpBundle()->sd(), 2}));

  Ptr<Ovel::EthDevPam> const old = pam(1);
  int const sd = old->sd();
  fake.clearCalls();
  manager->filterProgramIs({});  // refused: the socket is closed, so its Pams go and come back
  auto const closes = fake.calls(Kind::close);
  EXPECT_EQ(std::vector<long>({old->sd(), pams->intfPams(), manager->edpBundle()->sd(), long(closes.size()), closes[0].fd}),
            std::vector<long>({-1, 0, -1, 1, sd}));
  fake.clearCalls();
  advanceAndRun(0);
  EXPECT_EQ(std::vector<long>({pams->intfPams(), manager->edpBundle()->sdRef(), long(attached())}), std::vector<long>({2, 2, 0}));

  manager->enabledIs(false);
  manager->perIntfSocketIs(true);
  manager->enabledIs(true);
  fake.failNext(Kind::socketAt, EMFILE);
  want(3, 9);  // Ethernet1 and 2 were made first, with their own sockets
  EXPECT_EQ(count("Unable to enable pam for device et3 for intf Ethernet3 errno 24"), 1u);
  EXPECT_FALSE(manager->pam(id(3)));
  devices->intfStatusAndDeviceNameNotify(id(3));
  ASSERT_TRUE(pam(3));
  EXPECT_TRUE(pam(3)->ownSocket());
  fake.clearCalls();
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0}});
  EXPECT_EQ(std::vector<size_t>({count("Applying new filter to Ethernet3 pam device"), attached()}),
            std::vector<size_t>({1, 3}));
  EXPECT_EQ(manager->edpBundle()->sd(), -1);
  int const own = pam(3)->sd();
  manager = nullptr;  // destroyed while enabled: its Pams are withdrawn and their sockets closed
  EXPECT_EQ(std::vector<long>({pams->intfPams(), fcntl(own, F_GETFD)}), std::vector<long>({0, -1}));
}

TEST_F(EthDevPamManagerTest, BridgeFilterWantsBridgedInterfacesAndDevicesWithoutStatus) {
  Ptr<IntfStatus> status = intfStatusFactory(id(1));
  devices->intfStatusAndDeviceNameIs(id(2), {nullptr, "et2", 8});
  Ptr<EthBridgeIntfFilter> filter = ethBridgeIntfFilterFactory(devices, desired);
  EXPECT_TRUE(desired->intfDesired(id(2)));  // no status: desired at once
  devices->intfStatusAndDeviceNameIs(id(1), {status, "et1", 7});
  struct Row {
    ForwardingModel model;
    uint32_t entries;  // of the desired directory: a model other than bridged deletes, never stores false
  };
  for (Row const & row : std::vector<Row>{{forwardingModelBridged, 2}, {forwardingModelRouted, 1},
                                          {forwardingModelBridged, 2}, {forwardingModelDataLink, 1}, {forwardingModelBridged, 2}}) {
    status->forwardingModelIs(row.model);
    EXPECT_EQ(desired->intfDesireds(), row.entries) << row.model;
  }
  EXPECT_EQ(count("Ethernet1 is bridged"), 3u);
  devices->intfStatusAndDeviceNameDel(id(1));
  devices->intfStatusAndDeviceNameDel(id(2));
  EXPECT_EQ(std::vector<long>({desired->intfDesireds(), filter->intfStatuss(), status->notifiees()}), std::vector<long>({0, 0, 0}));
  status->forwardingModelIs(forwardingModelBridged);  // nobody watches it any more
  EXPECT_EQ(desired->intfDesireds(), 0u);
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { filter->intfStatusIs(id(1), nullptr); }),
            "null _intfStatus parameter to mutator for Interface::EthBridgeIntfFilter::intfStatus not allowed\"");
  for (auto [type, n, last] : {std::tuple("Interface::EthDevPamManagerBase", 7, "maxRxPktData"),
                               std::tuple("Interface::EthDevPamManager", 23, "initialized"),
                               std::tuple("Interface::EthBridgeIntfFilter", 3, "intfStatus")}) {
    auto const & names = Intfsm::typeRegistry().type(type)->attributes();
    EXPECT_EQ(std::pair(names.size(), names.back().stdString()), std::pair(size_t(n), std::string(last))) << type;
  }
}

}  // namespace
