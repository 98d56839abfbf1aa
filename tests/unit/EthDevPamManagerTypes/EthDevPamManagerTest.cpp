// The packet-access manager and the bridge interface filter over hand-filled directories, the kernel
// replaced by the fake platform, whose packet sockets are socket-pair ends that the real loop watches.
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"

#include <linux/ethtool.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using Kind = IntfsmTest::FakePlatform::Kind;
using Vorn::Ptr;
using L = std::vector<long>;
using IntfsmTest::thrownErrno;

namespace {

Ovel::IntfId id(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i)); }
Ovel::SockFilterProgram const acceptAll{{BPF_RET | BPF_K, 0, 0, 0xffff}};

class EthDevPamManagerTest : public IntfsmTest::ModuleTest {
 protected:
  EthDevPamManagerTest() : ModuleTest("EthDevPamManagerTypes") {
    fake.realSocketsIs(true);
    manager->ethProtocolIs(0x88b5);
    manager->handleInitialized();
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
  // The length of each program attached to `fd` (any descriptor when -1), in order.
  L attached(int fd = -1) {
    L lengths;
    for (auto const & c : fake.calls(Kind::setsockopt)) {
      if (c.b == SO_ATTACH_FILTER && (fd < 0 || c.fd == fd)) lengths.push_back(c.dataAs<sock_fprog>().len);
    }
    return lengths;
  }
  EthDevPamBundle & bundle() { return *manager->edpBundle(); }
  // What a failed call must leave as it found: published Pams, holders, counts, open sockets.
  L state() {
    return {pams->intfPams(), manager->pams(), bundle().sdRef(), bundle().sdTapRef(), long(fake.openDescriptors().size())};
  }

  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamManager> manager = ethDevPamManagerFactory(desired, pams, devices);
};

TEST_F(EthDevPamManagerTest, EnablingCatchesUpLendsSavedPacketsAndDisablingWithdrawsEveryPamButKeepsTheRest) {
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
    Ptr<Ovel::EthDevPamInBundle> foreign = new Ovel::EthDevPamInBundle("et3");  // another manager's
    foreign->sdIs(77);
    foreign->enabledIs(true);
    pams->intfPamIs(id(3), watch->pam[id(3)] = foreign);
    watch->notifierIs(pams);
    manager->ethDevPamEventIs(id(4));  // queued for deferred work
    manager->enabledIs(false);
    EXPECT_EQ(watch->sds, std::vector<int>({-1, -1, -1}));
    EXPECT_EQ(L({bundle().sd(), manager->pams(), pams->intfPams(), foreign->enabled(), long(fake.openDescriptors().size()),
                 bool(manager->ethDevPamBundleActivitySm()), manager->savedPackets(), manager->ethDevPamEvents()}),
              L({-1, 0, 0, 0, 0, 0, reuse ? 15 : 0, 1}));
    manager->ethDevPamEventDel(id(4));
    desired->intfDesiredDelAll();
    trace.clear();
  }
}

TEST_F(EthDevPamManagerTest, SettingsThatCannotWorkRaiseARangeErrorTheOthersReachTheBundle) {
  manager->maxRxPktDataIs(9000);
  manager->rxRingIs(true);
  auto settings = [&] {
    return std::tuple(manager->rxRingSettings(), manager->maxRxPktData(), manager->socketReadLimit(), manager->sockPrio(),
                      manager->rxModerationSettings());
  };
  auto const before = settings();
  std::string const ringSlot = "EthDevPamManager::rxRingFrameSize < 128 or not a multiple of 16 not allowed";
  std::string const ringBlock = "EthDevPamManager::rxRingBlockSize < 4096 or not a power of two not allowed";
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { manager->sockPrioIs(16); }, "EthDevPamManager::sockPrio < 0 or > 15 not allowed"},
      {[&] { manager->socketReadLimitIs(0); }, "EthDevPamManager::socketReadLimit < 1 or > 1024 not allowed"},
      {[&] { manager->socketReadLimitIs(1025); }, "EthDevPamManager::socketReadLimit < 1 or > 1024 not allowed"},
      {[&] { manager->maxRxPktDataIs(0); }, "EthDevPamManagerBase::maxRxPktData < 14 or > 262144 not allowed"},
      {[&] { manager->maxRxPktDataIs(262145); }, "EthDevPamManagerBase::maxRxPktData < 14 or > 262144 not allowed"},
      {[&] { manager->maxRxPktDataIs(65536); }, "EthDevPamManager::rxRingFrameSize of maxRxPktData 65536 > rxRingBlockSize not allowed"},
      {[&] { manager->rxRingBlockSizeIs(1000); }, ringBlock},
      {[&] { manager->rxRingBlockSizeIs(3 * 4096); }, ringBlock},
      {[&] { manager->rxRingBlockSizeIs(8192); }, "EthDevPamManager::rxRingFrameSize of maxRxPktData 9000 > rxRingBlockSize not allowed"},
      {[&] { manager->rxRingBlockCountIs(0); }, "EthDevPamManager::rxRingBlockCount < 1 not allowed"},
      {[&] { manager->rxRingSettingsIs({false, 1u << 30, 4, 0}); }, "EthDevPamManager::rxRingBlockSize * rxRingBlockCount > 4294967295 not allowed"},
      {[&] { manager->rxRingFrameSizeIs(100000); }, "EthDevPamManager::rxRingFrameSize > rxRingBlockSize not allowed"},
      {[&] { manager->rxRingFrameSizeIs(112); }, ringSlot},
      {[&] { manager->rxRingFrameSizeIs(1000); }, ringSlot},
      {[&] { manager->rxModerationBatchIs(0); }, "EthDevPamManager::rxModerationBatch < 1 or > 128 not allowed"},
      {[&] { manager->rxModerationBatchIs(129); }, "EthDevPamManager::rxModerationBatch < 1 or > 128 not allowed"},
      {[&] { manager->rxModerationIntervalUsIs(0); }, "EthDevPamManager::rxModerationIntervalUs < 1 or > 1000000 not allowed"},
      {[&] { manager->rxModerationSettingsIs({true, 16, 1000001}); }, "EthDevPamManager::rxModerationIntervalUs < 1 or > 1000000 not allowed"},
  };
  for (auto const & [set, text] : cases) {
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>(set), text);
    EXPECT_TRUE(settings() == before) << text;
  }
  manager->rxRingIs(false);
  manager->maxRxPktDataIs(65536);  // free without the ring
  manager->rxRingSettingsIs({false, 8192, 1, 4096});  // a slot of its own size is checked against the block alone
  EXPECT_EQ(L({manager->maxRxPktData(), manager->rxRingBlockSize(), manager->rxRingFrameSize()}), L({65536, 8192, 4096}));
  // The others reach the bundle when enabled, and the ring goes with the socket.
  want(1, 7);
  for (bool ring : {false, true, false}) {
    SCOPED_TRACE(ring);
    manager->rxRingSettingsIs({ring, 8192, 5, 2048});
    manager->rxModerationSettingsIs({ring, ring ? 5u : 16u, ring ? 300u : 100u});
    fake.clearCalls();
    manager->enabledIs(true);
    EXPECT_EQ(L({bundle().rxModeration(), bundle().rxModerationBatch(), bundle().rxModerationIntervalUs()}),
              L({ring, ring ? 5 : 16, ring ? 300 : 100}));
    auto const sets = fake.calls(Kind::setsockopt);
    auto const r = std::find_if(sets.begin(), sets.end(), [](auto const & c) { return c.b == PACKET_RX_RING; });
    EXPECT_EQ(L({bundle().rxRingMapped(bundle().sd()), r != sets.end(), long(fake.count(Kind::mmap))}), L({ring, ring, ring}));
    if (ring) {
      auto const q = r->dataAs<tpacket_req>();
      EXPECT_EQ(L({q.tp_block_size, q.tp_block_nr, q.tp_frame_size, q.tp_frame_nr, fake.calls(Kind::mmap)[0].a}),
                L({8192, 5, 2048, 20, 40960}));
    }
    manager->enabledIs(false);
    EXPECT_EQ(L({long(fake.count(Kind::munmap)), long(fake.openMappings() + fake.openDescriptors().size())}), L({ring, 0}));
  }
}

TEST_F(EthDevPamManagerTest, AStatusChangeKeepsThePamUnlessTheIfIndexChanges) {
  Ptr<EthDevPamManager> early = ethDevPamManagerFactory(desired, pams, devices);
  EXPECT_DEATH(early->enabledIs(true), "EthDevPamManagerTypes: assertion \"! enabled\\(\\)\"");
  manager->enabledIs(true);
  want(1, 7);
  manager->filterProgramIs(acceptAll);
  manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});  // equal: nothing
  EXPECT_EQ(attached(), L({1, 4, 1}));  // tried on a scratch socket, plain and guarded, then attached
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
    if (passes == 1 && pams->intfPams() == 1) hot = pams->intfPamIter().begin()->key;
    devices->intfStatusAndDeviceNameNotify(hot);
  }
  EXPECT_EQ(L({pams->intfPams(), passes <= n + 2, bool(pams->intfPam(id(n)))}), L({n - 1, 1, 0}));
  desired->intfDesiredIs(id(1), false);  // withdrawn at once, no pass
  EXPECT_FALSE(pams->intfPam(id(1)));
}

TEST_F(EthDevPamManagerTest, AFailedPamTakesBackWhatItBuiltThenRaisesOrIsTraced) {
  // {own sockets, interfaces made first, the call that fails, its errno, raised to the caller (else traced)}
  struct Case { bool perIntfSocket; int before; Kind kind; int error; bool raises; } const cases[] = {
      {false, 0, Kind::socketAt, ENOENT, true},     // no namespace for the shared socket
      {false, 1, Kind::setsockopt, ENOBUFS, true},  // the shared socket refuses its size for two
      {true, 1, Kind::socketAt, EMFILE, false},     // a Pam's own socket cannot be opened
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.error);
    manager->perIntfSocketIs(c.perIntfSocket);
    manager->enabledIs(true);
    for (int i = 1; i <= c.before; ++i) want(i, uint32_t(6 + i));
    L const before = state();
    trace.clear();
    int const n = c.before + 1;
    fake.failNext(c.kind, c.error);
    EXPECT_EQ(thrownErrno([&] { want(n, uint32_t(6 + n)); }), c.raises ? c.error : 0);
    advanceAndRun(0);  // what a closed shared socket took along comes back on a new one
    EXPECT_EQ(state(), before);
    std::string const et = std::to_string(n), trace = " for intf Ethernet" + et + " errno " + std::to_string(c.error);
    EXPECT_EQ(count("Unable to enable pam for device et" + et + trace), !c.raises);
    devices->intfStatusAndDeviceNameNotify(id(n));  // its next notification makes it
    EXPECT_EQ(L({pams->intfPams(), manager->pams()}), L({n, n}));
    manager->enabledIs(false);
    desired->intfDesiredDelAll();
  }
  // Enabling goes on past a failure and raises it at the end; a deferred firing traces it and goes on.
  manager->perIntfSocketIs(false);
  want(1, 7);
  want(2, 8);
  fake.failNext(Kind::socketAt, ENOENT);
  EXPECT_EQ(thrownErrno([&] { manager->enabledIs(true); }), ENOENT);
  EXPECT_EQ(L({manager->enabled(), pams->intfPams()}), L({1, 1}));
  manager->enabledIs(false);
  manager->deferIs(true);
  manager->enabledIs(true);
  fake.failNext(Kind::socketAt, ENOENT);
  advanceAndRun(0);
  EXPECT_EQ(L({pams->intfPams(), count("Unable to make pam for Ethernet")}), L({1, 1}));
  manager = nullptr;  // destroyed while enabled: its Pams are withdrawn and their sockets closed
  EXPECT_EQ(L({pams->intfPams(), long(fake.openDescriptors().size())}), L({0, 0}));
}

TEST_F(EthDevPamManagerTest, AProgramIsTriedFirstSoThatARefusalRaisesAndLeavesTheOldOneEverywhere) {
  int refuseOn = -1;  // As the kernel, refuses a program that does not end in a return; and any on refuseOn.
  fake.behaviour().setsockopt = [&, base = fake.behaviour().setsockopt](int fd, int l, int o, void const * v, socklen_t n) {
    auto const * p = static_cast<sock_fprog const *>(v);
    if (o == SO_ATTACH_FILTER && BPF_CLASS(p->filter[p->len - 1].code) != BPF_RET) return errno = EINVAL, -1;
    return o == SO_ATTACH_FILTER && fd == refuseOn ? (errno = ENOMEM, -1) : base(fd, l, o, v, n);
  };
  Ovel::SockFilterProgram const refused{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12}};
  Ovel::SockFilterProgram const second{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12}, {BPF_RET | BPF_K, 0, 0, 0xffff}};
  auto everywhere = [&](Ovel::SockFilterProgram const & p) {  // manager, bundle and every Pam hold `p`
    return manager->filterProgram() == p && bundle().filterProgram() == p && pam(1)->filterProgram() == p &&
           pam(2)->filterProgram() == p;
  };
  // On the fabric protocol a veth device (et2) shares the tap socket, behind its guard.
  manager->ethProtocolIs(0x002a);
  fake.behaviour().ioctl = [](int, unsigned long request, void * argument) {
    auto * ifr = static_cast<ifreq *>(argument);
    if (request != SIOCETHTOOL || std::strcmp(ifr->ifr_name, "et2") != 0) return errno = EOPNOTSUPP, -1;
    return std::strcpy(reinterpret_cast<ethtool_drvinfo *>(ifr->ifr_data)->driver, "veth"), 0;
  };
  manager->enabledIs(true);
  EXPECT_EQ(thrownErrno([&] { manager->filterProgramIs(refused); }), EINVAL);  // no socket yet: refused all the same
  manager->filterProgramIs(acceptAll);
  want(1, 7);
  want(2, 8);
  int const sd = bundle().sd(), tap = bundle().sdTap();
  L const before = state();
  EXPECT_EQ(L({count("Socket not yet created as no EthDevPam enabled yet. Ignore"), attached(sd).back(), attached(tap).back(),
               everywhere(acceptAll)}),
            L({1, 1, 4, 1}));  // applied as each socket was made
  fake.clearCalls();
  EXPECT_EQ(thrownErrno([&] { manager->filterProgramIs(refused); }), EINVAL);  // no live socket tried
  refuseOn = tap;  // a live socket refuses what the scratch one took: the one already changed gets the old one back
  EXPECT_EQ(thrownErrno([&] { manager->filterProgramIs(second); }), ENOMEM);
  EXPECT_EQ(L({attached(sd) == L({2, 1}), attached(tap) == L({5}), everywhere(acceptAll), state() == before}), L({1, 1, 1, 1}));
  // Sockets of their own: a refusal on one puts the old program back on those already changed.
  refuseOn = -1;
  manager->enabledIs(false);
  manager->perIntfSocketIs(true);
  manager->enabledIs(true);
  manager->filterProgramIs(second);
  refuseOn = pam(2)->sd();
  EXPECT_EQ(thrownErrno([&] { manager->filterProgramIs(acceptAll); }), ENOMEM);
  EXPECT_EQ(L({count("Applying new filter to Ethernet2 pam device"), everywhere(second)}), L({2, 1}));
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
