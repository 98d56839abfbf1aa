// The packet-access manager and the bridge interface filter over hand-filled directories, with the
// kernel replaced by the fake platform. The bundle's sockets must be watched by the real loop, so the
// fake hands out one end of a socket pair as each packet socket.
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"

#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using Kind = IntfsmTest::FakePlatform::Kind;
using Vorn::Ptr;
using L = std::vector<long>;

namespace {

Ovel::IntfId id(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i)); }
Ovel::SockFilterProgram const acceptAll{{BPF_RET | BPF_K, 0, 0, 0xffff}};

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
    manager->handleInitialized();
  }
  ~EthDevPamManagerTest() override {
    manager = nullptr;
    for (int fd : peers) close(fd);
  }
  void want(int i, uint32_t ifIndex) {
    devices->intfStatusAndDeviceNameIs(id(i), {intfStatusFactory(id(i)), "et" + std::to_string(i), ifIndex});
    desired->intfDesiredIs(id(i), true);
  }
  Ptr<Ovel::EthDevPam> pam(int i) { return Vorn::ptr_cast<Ovel::EthDevPam>(pams->intfPam(id(i))); }
  long count(std::string const & text) {
    auto const t = traces();
    return std::count_if(t.begin(), t.end(), [&](std::string const & s) { return s.starts_with(text); });
  }
  long attached() {
    auto const c = fake.calls(Kind::setsockopt);
    return std::count_if(c.begin(), c.end(), [](auto const & x) { return x.b == SO_ATTACH_FILTER; });
  }
  EthDevPamBundle & bundle() { return *manager->edpBundle(); }

  std::vector<int> peers;
  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamManager> manager = ethDevPamManagerFactory(desired, pams, devices);
};

TEST_F(EthDevPamManagerTest, EnablingCatchesUpLendsSavedPacketsAndDisablingClearsEachDescriptorFirst) {
  struct Watch : EthDevPamCollection::NotifieeConst {
    void onIntfPam(Ovel::IntfId const & i) override { sds.push_back(pam[i] ? pam[i]->sd() : -2); }
    std::map<Ovel::IntfId, Ptr<Ovel::EthDevPam>> pam;
    std::vector<int> sds;  // of each Pam when its entry changes
  };
  for (bool reuse : {false, true}) {
    SCOPED_TRACE(reuse);
    manager->pktReuseIs(reuse);
    manager->enableBulkPamReadIs(true);
    manager->socketReadLimitIs(reuse ? 15 : 3);
    want(1, 7);
    EXPECT_EQ(count("Not enabled so ignoring notification for Ethernet1"), 2);  // its record, then its wish
    manager->enabledIs(true);
    want(2, 8);
    EXPECT_EQ(L({bundle().enableBulkPamRead(), count("Turning off enableBulkPamRead as the pkts cannot be reused"),
                 manager->savedPackets(), bundle().sdRef()}),
              L({reuse, !reuse, reuse ? 15 : 0, 2}));
    Ptr<Watch> watch = new Watch;
    for (int i : {1, 2}) {
      EXPECT_EQ(L({pam(i)->ifIndex(), pam(i)->ethProtocol(), pam(i)->sd(), pam(i)->enabled(), pam(i)->socketReadLimit(),
                   pam(i)->savedPackets()}),
                L({6 + i, 0x88b5, bundle().sd(), 1, reuse ? 15 : 3, reuse ? 15 : 0}));
      for (uint16_t k = 0; k < pam(i)->savedPackets(); ++k) EXPECT_EQ(pam(i)->savedPacket(k), manager->savedPacket(k));
      watch->pam[id(i)] = pam(i);
    }
    watch->notifierIs(pams);
    int const sd = bundle().sd();
    manager->enabledIs(false);
    EXPECT_EQ(watch->sds, std::vector<int>({-1, -1}));
    EXPECT_EQ(L({bundle().sd(), manager->pams(), fcntl(sd, F_GETFD), bool(manager->ethDevPamBundleActivitySm())}),
              L({-1, 0, -1, 0}));
    desired->intfDesiredDelAll();
    trace.clear();
  }
}

TEST_F(EthDevPamManagerTest, AStatusChangeKeepsThePamUnlessTheIfIndexChanges) {
  Ptr<EthDevPamManager> early = ethDevPamManagerFactory(desired, pams, devices);
  EXPECT_DEATH(early->enabledIs(true), "EthDevPamManagerTypes: assertion \"! enabled\\(\\)\"");
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { manager->sockPrioIs(16); }),
            "EthDevPamManager::sockPrio < 0 or > 15 not allowed");
  manager->enabledIs(true);
  want(1, 7);
  manager->filterProgramIs(acceptAll);
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});  // equal: nothing
  EXPECT_EQ(attached(), 1);
  Ptr<Ovel::EthDevPam> const first = pam(1);
  devices->intfStatusAndDeviceNameIs(id(1), {nullptr, "et1", 7});  // same device, the status changed
  EXPECT_EQ(L({pam(1) == first, count("Pam for Ethernet1 already exists")}), L({1, 1}));
  trace.clear();
  want(1, 9);  // re-created under the same interface
  EXPECT_THAT(traces(), testing::IsSupersetOf({"Deleting stale pam for Ethernet1", "Creating pam for Ethernet1 / et1 ifIndex 9"}));
  EXPECT_EQ(L({first->enabled(), first->sd(), pam(1)->ifIndex(), bundle().sdRef()}), L({0, -1, 9, 1}));  // count given back
  desired->intfDesiredIs(id(1), false);
  EXPECT_EQ(L({pams->intfPams(), manager->pams(), bundle().sdRef()}), L({0, 0, 0}));
}

TEST_F(EthDevPamManagerTest, RingSettingsReachTheBundleWhenEnabledAndTheRingGoesWithTheSocket) {
  // The socket pair cannot be mapped: the ring is plain memory here.
  fake.behaviour().mmap = [](void *, size_t length, int, int, int, off_t) {
    return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  };
  want(1, 7);
  for (bool ring : {false, true, false}) {
    SCOPED_TRACE(ring);
    manager->rxRingIs(ring);
    manager->rxRingBlockSizeIs(8192);
    manager->rxRingBlockCountIs(5);
    manager->rxRingFrameSizeIs(2048);
    fake.clearCalls();
    manager->enabledIs(true);
    std::vector<tpacket_req> requests;
    for (auto const & c : fake.calls(Kind::setsockopt)) {
      if (c.b != PACKET_RX_RING) continue;
      requests.emplace_back();
      std::memcpy(&requests.back(), c.data.data(), std::min(c.data.size(), sizeof(tpacket_req)));
    }
    EXPECT_EQ(L({bundle().rxRing(), bundle().rxRingMapped(bundle().sd()), long(requests.size()), long(fake.count(Kind::mmap))}),
              L({ring, ring, ring, ring}));
    if (ring) {
      tpacket_req const & r = requests[0];
      EXPECT_EQ(L({r.tp_block_size, r.tp_block_nr, r.tp_frame_size, r.tp_frame_nr, fake.calls(Kind::mmap)[0].a}),
                L({8192, 5, 2048, 20, 40960}));
    }
    int const sd = bundle().sd();
    manager->enabledIs(false);
    auto const unmaps = fake.calls(Kind::munmap);
    EXPECT_EQ(L({long(unmaps.size()), unmaps.empty() ? 0 : unmaps[0].a, fcntl(sd, F_GETFD)}), L({ring, ring ? 40960 : 0, -1}));
  }
}

TEST_F(EthDevPamManagerTest, DeferredCreationIsOneInterfacePerPassAndFairWhileWithdrawalIsImmediate) {
  int const n = 1000;
  manager->deferIs(true);
  for (int i = 1; i <= n; ++i) want(i, uint32_t(i));
  manager->enabledIs(true);
  EXPECT_EQ(pams->intfPams(), 0u);  // nothing before the loop runs
  desired->intfDesiredDel(id(n));
  int passes = 0;
  Ovel::IntfId hot;  // made first, then queued again on every pass: it must not keep the others waiting
  while (pams->intfPams() < uint32_t(n - 1) && passes < 3 * n) {
    trace.clear();
    runOnce();
    ++passes;
    ASSERT_LE(count("Creating pam for") + count("Pam for "), 1) << "pass " << passes;
    if (passes == 1) {
      ASSERT_EQ(pams->intfPams(), 1u) << "the first pass makes one Pam";
      hot = pams->intfPamIter().begin()->key;
    }
    devices->intfStatusAndDeviceNameNotify(hot);
  }
  EXPECT_EQ(L({pams->intfPams(), passes <= n + 2, bool(pams->intfPam(id(n)))}), L({n - 1, 1, 0}));
  desired->intfDesiredIs(id(1), false);  // withdrawn at once, no pass
  EXPECT_FALSE(pams->intfPam(id(1)));
}

TEST_F(EthDevPamManagerTest, FailuresLeaveNothingPublishedNorCountedAndNoPamOnAClosedSocket) {
  // The kernel refuses an empty program, as SO_ATTACH_FILTER does.
  fake.behaviour().setsockopt = [base = fake.behaviour().setsockopt](int fd, int l, int o, void const * v, socklen_t n) {
    if (o == SO_ATTACH_FILTER && static_cast<sock_fprog const *>(v)->len == 0) return errno = EINVAL, -1;
    return base(fd, l, o, v, n);
  };
  manager->enabledIs(true);
  manager->filterProgramIs(acceptAll);
  want(1, 7);
  EXPECT_EQ(L({count("Socket not yet created as no EthDevPam enabled yet. Ignore"), attached()}), L({1, 1}));  // set before the socket

  fake.failNext(Kind::setsockopt, ENOBUFS);  // the receive buffer, resized for two
  want(2, 8);
  EXPECT_EQ(count("Unable to enable pam for device et2 for intf Ethernet2 errno 105"), 1);
  EXPECT_EQ(L({pams->intfPams(), manager->pams(), bundle().sd()}), L({0, 0, -1}));
  advanceAndRun(0);  // Ethernet1 again, on a new socket
  devices->intfStatusAndDeviceNameNotify(id(2));  // its next notification
  EXPECT_EQ(L({pam(1)->sd(), pam(2)->sd(), bundle().sdRef()}), L({bundle().sd(), bundle().sd(), 2}));

  Ptr<Ovel::EthDevPam> const old = pam(1);
  int const sd = old->sd();
  fake.clearCalls();
  manager->filterProgramIs({});  // refused: the socket is closed, so its Pams go and come back
  auto const closes = fake.calls(Kind::close);
  EXPECT_EQ(L({old->sd(), pams->intfPams(), bundle().sd(), long(closes.size()), closes[0].fd}), L({-1, 0, -1, 1, sd}));
  fake.clearCalls();
  advanceAndRun(0);
  EXPECT_EQ(L({pams->intfPams(), bundle().sdRef(), attached()}), L({2, 2, 0}));

  // On the fabric protocol a veth device shares the tap socket: it goes too when the common one is refused.
  manager->enabledIs(false);
  manager->ethProtocolIs(0x002a);
  fake.behaviour().ioctl = [](int, unsigned long request, void * argument) {
    auto * ifr = static_cast<ifreq *>(argument);
    if (request != SIOCETHTOOL || std::strcmp(ifr->ifr_name, "et2") != 0) return errno = EOPNOTSUPP, -1;
    return std::strcpy(reinterpret_cast<ethtool_drvinfo *>(ifr->ifr_data)->driver, "veth"), 0;
  };
  manager->enabledIs(true);
  manager->filterProgramIs(acceptAll);
  fake.clearCalls();
  manager->filterProgramIs({});
  long const closed = fake.count(Kind::close);  // the refused one, then the tap socket
  advanceAndRun(0);
  EXPECT_EQ(L({pam(2)->sd(), bundle().sdTapRef(), bundle().sdRef(), closed}), L({bundle().sdTap(), 1, 1, 2}));

  manager->enabledIs(false);
  manager->perIntfSocketIs(true);
  manager->enabledIs(true);
  fake.failNext(Kind::socketAt, EMFILE);
  want(3, 9);  // Ethernet1 and 2 were made first, with their own sockets
  EXPECT_EQ(L({count("Unable to enable pam for device et3 for intf Ethernet3 errno 24"), bool(manager->pam(id(3)))}), L({1, 0}));
  devices->intfStatusAndDeviceNameNotify(id(3));
  fake.clearCalls();
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0}});
  EXPECT_EQ(L({pam(3)->ownSocket(), count("Applying new filter to Ethernet3 pam device"), attached(), bundle().sd()}),
            L({1, 1, 3, -1}));
  int const own = pam(3)->sd();
  manager = nullptr;  // destroyed while enabled: its Pams are withdrawn and their sockets closed
  EXPECT_EQ(L({pams->intfPams(), fcntl(own, F_GETFD)}), L({0, -1}));
}

TEST_F(EthDevPamManagerTest, BridgeFilterWantsBridgedInterfacesAndDevicesWithoutStatus) {
  Ptr<IntfStatus> status = intfStatusFactory(id(1));
  devices->intfStatusAndDeviceNameIs(id(2), {nullptr, "et2", 8});
  Ptr<EthBridgeIntfFilter> filter = ethBridgeIntfFilterFactory(devices, desired);
  EXPECT_TRUE(desired->intfDesired(id(2)));  // no status: desired at once
  // A model other than bridged deletes the entry, never stores false. A record without its status is
  // desired; its status reactor stays, deciding nothing until the record names that status again.
  for (auto [named, model, entries] : {std::tuple(true, forwardingModelBridged, 2u), {true, forwardingModelRouted, 1u},
                                       {true, forwardingModelBridged, 2u}, {true, forwardingModelDataLink, 1u},
                                       {false, forwardingModelDataLink, 2u}, {false, forwardingModelRouted, 2u},
                                       {true, forwardingModelRouted, 1u}, {true, forwardingModelBridged, 2u}}) {
    if (named != bool(devices->intfStatusAndDeviceName(id(1)).intfStatus)) {
      devices->intfStatusAndDeviceNameIs(id(1), {named ? status : nullptr, "et1", 7});
    }
    status->forwardingModelIs(model);
    EXPECT_EQ(L({desired->intfDesireds(), filter->intfStatuss()}), L({entries, 1})) << named << model;
  }
  EXPECT_EQ(count("Ethernet1 is bridged"), 3);
  devices->intfStatusAndDeviceNameDel(id(1));
  devices->intfStatusAndDeviceNameDel(id(2));
  EXPECT_EQ(L({desired->intfDesireds(), filter->intfStatuss(), status->notifiees()}), L({0, 0, 0}));
  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { filter->intfStatusIs(id(1), nullptr); }),
            "null _intfStatus parameter to mutator for Interface::EthBridgeIntfFilter::intfStatus not allowed\"");
}

}  // namespace
