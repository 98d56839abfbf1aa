// A bundle's shared packet socket in a namespace of the test's own with three veth devices (va0-va2)
// whose peers (vb0-vb2) sit in a second namespace, from where raw sockets send the frames. The
// interfaces join as the packet-access manager will have them join: a Pam per interface with the
// descriptor from doGetSd, enabled and published in the Pam collection. Each receive path runs: single
// frames, bulk reads, and ring mode on a ring of 8 slots, which the tests' traffic wraps.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/KernelModuleTest.h"
#include "tests/support/TraceCapture.h"

using namespace Interface;
using IntfsmTest::frame;
using IntfsmTest::mappedSockets;
using IntfsmTest::Reader;
using IntfsmTest::testProtocol;
using Vorn::Ptr;

namespace {

constexpr int pairs = 3;

struct Path {
  char const * name;
  bool bulk, ring;
};
constexpr Path single{"single", false, false}, bulk{"bulk", true, false}, ring{"ring", false, true};

// `frame(tag)` with an 802.1Q / 802.1ad tag after the addresses.
std::string tagged(uint16_t tpid, uint16_t tci, char tag) {
  std::string const f = frame(tag);
  return f.substr(0, 12) + char(tpid >> 8) + char(tpid & 0xff) + char(tci >> 8) + char(tci & 0xff) + f.substr(12);
}

// The classic BPF program attached to `fd`, instruction by instruction.
std::vector<std::vector<uint32_t>> program(int fd) {
  sock_filter f[8];
  socklen_t n = 8;
  std::vector<std::vector<uint32_t>> out;
  if (getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, f, &n) < 0) return out;
  for (socklen_t i = 0; i < n; ++i) out.push_back({f[i].code, f[i].jt, f[i].jf, f[i].k});
  return out;
}

// The process's CPU time: what an idle loop must not burn.
double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

std::string bytesOf(Ovel::Pkt const & pkt) { return std::string(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen()); }

class EthDevPamBundleKernelTest : public IntfsmTest::KernelModuleTest {
 protected:
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    ns = netns().namespaceNew();
    peerNs = netns().namespaceNew();
    for (int i = 0; i < pairs; ++i) {
      auto const link = vethUp(ns, va(i), "vb" + std::to_string(i), peerNs);
      ifIndex[i] = uint32_t(link.a);
      peerIndex[i] = link.b;
      devices->intfStatusByIfIndexIs(ifIndex[i], record(i));
    }
    peer = senderIn(peerNs);
    own = senderIn(ns);
  }
  void TearDown() override {
    leave();
    KernelModuleTest::TearDown();
  }

  static std::string va(int i) { return "va" + std::to_string(i); }
  static Ovel::IntfId intfId(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i + 1)); }
  IntfStatusAndDeviceName record(int i) { return {intfStatusFactory(intfId(i)), va(i), ifIndex[i]}; }
  Ovel::EthDevPamInBundle & pam(int i) { return static_cast<Ovel::EthDevPamInBundle &>(*readers[i]->pam); }

  void bundleNew(uint16_t protocol, Path path, Ovel::SockFilterProgram const & filter = {}) {
    bundle = new EthDevPamBundle(desired, devices, pams);
    bundle->netNsIs(Ovel::NamespaceName(ns));
    bundle->ethProtocolIs(protocol);
    bundle->filterProgramIs(filter);
    bundle->pktReuseIs(true);
    bundle->enableBulkPamReadIs(path.bulk);
    bundle->rxRingIs(path.ring);
    bundle->rxRingBlockSizeIs(4096);  // two 1600-byte slots a block
    bundle->rxRingBlockCountIs(4);
    bundle->separateDot1QHdrIs(true);
    bundle->enabledIs(true);
  }
  void join(int i) {
    Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle(va(i));
    pam->ifIndexIs(ifIndex[i]);
    pam->sdIs(bundle->doGetSd(va(i)));
    pam->enabledIs(true);
    pams->intfPamIs(intfId(i), pam);
    bundle->doSetRcvBuf(pam->sd());
    readers[i] = new Reader(pam);
  }
  void leave() {
    for (auto & r : readers) r = nullptr;
    pams->intfPamDelAll();
    if (bundle) bundle->enabledIs(false);
    bundle = nullptr;
  }
  void send(int i, std::string const & f) { sendOn(peer, peerIndex[i], f); }

  std::string ns, peerNs;
  uint32_t ifIndex[pairs] = {};
  int peerIndex[pairs] = {};
  int peer = -1, own = -1;
  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamBundle> bundle;
  Ptr<Reader> readers[pairs];
};

TEST_F(EthDevPamBundleKernelTest, EachFrameReachesThePamOfItsIfIndexAndHeldFramesKeepTheirBytes) {
  for (Path path : {single, bulk, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(testProtocol, path);
    join(0);
    join(1);  // Ethernet3 (va2) is known but has no Pam
    std::vector<std::string> sent[2];
    std::vector<uint64_t> sentAt[2];  // CLOCK_REALTIME, as the kernel stamps frames
    for (char round = 0; round < 3; ++round) {  // readers hold every frame across the later reads
      send(2, frame('z'));  // first: the frames held sit in the last slots a read fills
      for (int i : {0, 0, 1}) {
        sent[i].push_back(frame(char('a' + 8 * i + 2 * round + char(sent[i].size() % 2))));
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        sentAt[i].push_back(uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec));
        send(i, sent[i].back());
      }
      ASSERT_TRUE(runUntil([&] {
        return readers[0]->frames.size() == sent[0].size() && readers[1]->frames.size() == sent[1].size() &&
               bundle->pamNotReadyDropCount() == uint32_t(round + 1);
      }));
    }
    devices->intfStatusByIfIndexDel(ifIndex[2]);
    send(2, frame('y'));
    ASSERT_TRUE(runUntil([&] { return bundle->noPamDropCount() == 1; }));
    devices->intfStatusByIfIndexIs(ifIndex[2], record(2));
    for (int i : {0, 1}) {
      EXPECT_EQ(readers[i]->frames, sent[i]);
      for (size_t k = 0; k < sent[i].size(); ++k) {
        EXPECT_EQ(bytesOf(*readers[i]->held[k]), sent[i][k]);
        EXPECT_LT(readers[i]->held[k]->rxTime() - sentAt[i][k], 5000000u) << "received within 5 ms of its sending";
      }
      EXPECT_EQ(readers[i]->held[0]->ifIndex(), ifIndex[i]);
    }
    EXPECT_EQ(bundle->maxProcessedPkts() > 0, path.bulk || path.ring);
    int version = -1;
    socklen_t length = sizeof version;
    getsockopt(bundle->sd(), SOL_PACKET, PACKET_VERSION, &version, &length);
    EXPECT_EQ(std::vector<int>({bundle->rxRingMapped(bundle->sd()), mappingsOpened(), version}),
              std::vector<int>({path.ring, path.ring, path.ring ? TPACKET_V2 : TPACKET_V1}));
    leave();
  }
}

TEST_F(EthDevPamBundleKernelTest, TagsArriveBesideTheFrameWhileOwnAndFilteredFramesNeverArrive) {
  for (Path path : {single, bulk, ring}) {
    SCOPED_TRACE(path.name);
    // Every protocol, so that outgoing frames and tags are seen; the filter keeps the test's EtherType.
    bundleNew(ETH_P_ALL, path, Ovel::SockFilterProgram{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                                                       {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, testProtocol},
                                                       {BPF_RET | BPF_K, 0, 0, 0xffff},
                                                       {BPF_RET | BPF_K, 0, 0, 0}});
    join(0);
    send(0, tagged(0x8100, 0x2005, 't'));
    send(0, tagged(0x88a8, 0x0007, 's'));
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 2; }));
    sendOn(own, int(ifIndex[0]), frame('o'));  // out of va0: the shared socket sees it leave
    send(0, frame('f', testProtocol + 1));  // dropped by the filter in the kernel
    send(0, frame('u'));                    // untagged, read into what held a tagged frame
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 3; }));
    loop().runOnce(0.05);
    ASSERT_EQ(readers[0]->frames, std::vector<std::string>({frame('t'), frame('s'), frame('u')}));
    Ovel::Pkt const & q = *readers[0]->held[0];
    Ovel::Pkt const & ad = *readers[0]->held[1];
    EXPECT_EQ(std::vector<int>({q.hasVlanTag(), q.vlanTpid(), q.vlanTci(), ad.vlanTpid(), ad.vlanTci(),
                                readers[0]->held[2]->hasVlanTag()}),
              std::vector<int>({1, 0x8100, 0x2005, 0x88a8, 7, 0}));
    EXPECT_EQ(bundle->noPamDropCount() + bundle->pamNotReadyDropCount() + bundle->rxErrors(), 0u);
    leave();
  }
}

// Frames left unread cost nothing while they wait: no pass re-arms the activity, no CPU is burnt; the
// reader gets the rest on the activity as soon as it takes a frame on its own.
TEST_F(EthDevPamBundleKernelTest, AReaderThatLeavesItsFramesUnreadCostsNoCpuAndGetsThemWhenItReads) {
  for (Path path : {bulk, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(testProtocol, path);
    join(0);
    auto activity = loop().activityIs("edpBundleActivity", 99);
    Ptr<EthDevPamBundleActivitySm> sm = new EthDevPamBundleActivitySm(activity, nullptr);
    sm->ethDevPamBundleIs(bundle);
    readers[0]->consume = false;
    for (char k = 'a'; k < 'h'; ++k) send(0, frame(k));
    ASSERT_TRUE(runUntil([&] { return pam(0).curRxPkts() == 7; }));
    unsigned const calls = readers[0]->calls;
    double const cpu = cpuSeconds();
    for (int pass = 0; pass < 20; ++pass) loop().runOnce(0.01);
    EXPECT_LT(cpuSeconds() - cpu, 0.05);  // idle for 0.2 s; a busy loop takes all of it
    EXPECT_EQ(std::vector<unsigned>({readers[0]->calls - calls, bundle->schedPktDelivery()}), std::vector<unsigned>({0, 0}));
    readers[0]->consume = true;
    readers[0]->frames.push_back(bytesOf(*pam(0).rxPkt()));  // it reads again, on its own
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 7; }));
    EXPECT_EQ(readers[0]->frames.back(), frame('g'));
    EXPECT_EQ(bundle->schedPktDelivery(), 1u);
    EXPECT_TRUE(bundle->actPamCollection()->empty());
    sm = nullptr;
    leave();
  }
}

// Moderated reads on real sockets: a burst switches the socket to timed reads, frames sent meanwhile
// arrive on the timer, a trickle switches it back to readiness; every frame arrives once and in order
// across the switches, and an idle bundle burns no CPU (a timer that kept firing, or readiness left
// off with frames waiting, would show here).
TEST_F(EthDevPamBundleKernelTest, ModeratedReadsLoseNothingAcrossModeSwitchesAndAnIdleBundleCostsNoCpu) {
  for (Path path : {bulk, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(testProtocol, path);
    bundle->rxRingBlockCountIs(64);  // 128 slots: a burst fits
    bundle->rxModerationBatchIs(8);
    bundle->rxModerationIntervalUsIs(20000);  // long enough that the next interval is hit on a slow machine
    bundle->rxModerationIs(true);
    join(0);
    std::vector<std::string> sent;
    auto burst = [&](int n) {
      for (int k = 0; k < n; ++k) {
        sent.push_back(frame(char(33 + sent.size() % 90)));
        send(0, sent.back());
      }
    };
    auto allThere = [&] { return runUntil([&] { return readers[0]->frames.size() == sent.size(); }); };
    for (int round = 0; round < 2; ++round) {
      burst(40);  // queued before the loop runs: the first read finds them all
      ASSERT_TRUE(allThere());
      EXPECT_FALSE(bundle->rxModerated(bundle->sd()));  // a burst alone is no storm
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
      burst(20);  // a batch in the next interval too
      ASSERT_TRUE(allThere());
      EXPECT_TRUE(bundle->rxModerated(bundle->sd()));
      burst(20);  // read by the timer (or, when it found the socket quiet first, by readiness again)
      ASSERT_TRUE(allThere());
      for (int k = 0; k < 3; ++k) {  // a trickle: back to readiness, then read on readiness
        burst(1);
        ASSERT_TRUE(allThere());
      }
      EXPECT_FALSE(bundle->rxModerated(bundle->sd()));
    }
    EXPECT_EQ(readers[0]->frames, sent);
    EXPECT_GE(bundle->rxModerationEntries(), 2u);
    EXPECT_EQ(bundle->kernelDrops() + bundle->noPamDropCount() + bundle->pamNotReadyDropCount(), 0u);
    double const cpu = cpuSeconds();
    for (int pass = 0; pass < 20; ++pass) loop().runOnce(0.01);
    EXPECT_LT(cpuSeconds() - cpu, 0.05);  // idle for 0.2 s; a busy loop takes all of it
    leave();
  }
}

TEST_F(EthDevPamBundleKernelTest, AFullQueueDropsInThePamNeverInTheKernelAndARefusedRingLeavesNothingOpen) {
  auto kernelStats = [](int fd) {
    tpacket_stats stats{};
    socklen_t length = sizeof stats;
    getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &length);
    return std::vector<unsigned>({stats.tp_packets, stats.tp_drops});
  };
  for (Path path : {single, bulk, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(testProtocol, path);
    join(0);
    Ovel::EthDevPamInBundle & queue = pam(0);
    queue.maxRxPktsIs(3);
    queue.headDropPolicyIs(true);
    readers[0]->consume = false;
    // 12 frames in batches of 4: more than the ring's 8 slots, so its slots must come back while
    // the reader holds on to its frames.
    for (int batch = 0; batch < 3; ++batch) {
      for (int k = 0; k < 4; ++k) send(0, frame(char('a' + 4 * batch + k)));
      ASSERT_TRUE(runUntil([&] { return queue.queueDropCount() + queue.curRxPkts() == 4u * (batch + 1); }));
    }
    readers[0]->consume = true;
    send(0, frame('n'));  // the oldest waiting frame makes room for it
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 3; }));
    EXPECT_EQ(readers[0]->frames, std::vector<std::string>({frame('k'), frame('l'), frame('n')}));
    EXPECT_EQ(queue.queueDropCount(), 10u);
    EXPECT_EQ(kernelStats(bundle->sd()), std::vector<unsigned>({13, 0}));
    EXPECT_EQ(bundle->kernelDrops(), 0u);
    EXPECT_EQ(bundle->noPamDropCount() + bundle->pamNotReadyDropCount() + bundle->rxErrors(), 0u);
    leave();
  }
  // A slot larger than a block: the kernel refuses the ring, says so by setting, and the socket goes.
  bundleNew(testProtocol, ring);
  bundle->rxRingFrameSizeIs(8192);
  IntfsmTest::TraceCapture trace("EthDevPamManagerTypes");
  int errorNumber = 0;
  try {
    bundle->doGetSd(va(0));
  } catch (Vorn::ErrnoException const & e) {
    errorNumber = e.errorNumber();
  }
  EXPECT_EQ(std::vector<int>({errorNumber, bundle->sd(), bundle->sdRef(), descriptorsOpened(),
                              mappingsOpened()}),
            std::vector<int>({EINVAL, -1, 0, 2, 0}));  // the test's own two sending sockets
  EXPECT_TRUE(trace.contains("EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize 4096, "
                             "rxRingBlockCount 4, rxRingFrameSize 8192), errno: 22"));
}

TEST_F(EthDevPamBundleKernelTest, AVethOnTheFabricProtocolGetsTheGuardedTapSocketAndDisablingClosesBoth) {
  for (Path path : {single, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(0x002a, path, Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
    join(0);
    int const sd = bundle->sd(), tap = bundle->sdTap();
    ASSERT_GE(tap, 0);
    EXPECT_NE(tap, sd);
    EXPECT_EQ(pam(0).sd(), tap);
    EXPECT_EQ(std::vector<int>({bundle->sdRef(), bundle->sdTapRef()}), std::vector<int>({0, 1}));
    auto boundTo = [](int fd) {
      sockaddr_ll name{};
      socklen_t length = sizeof name;
      getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length);
      return ntohs(name.sll_protocol);
    };
    EXPECT_EQ(boundTo(sd), 0x002a);
    EXPECT_EQ(boundTo(tap), ETH_P_ALL);
    EXPECT_EQ(program(tap), (std::vector<std::vector<uint32_t>>{
                                {0x20, 0, 0, 0xfffff000}, {0x15, 0, 1, 0x2a}, {0x06, 0, 0, 0}, {0x06, 0, 0, 0xffff}}));
    EXPECT_EQ(program(sd).size(), 1u);  // the common socket has no guard
    send(0, frame('g'));
    ASSERT_TRUE(runUntil([&] {  // through the tap socket, which takes every protocol (IPv6 chatter too)
      auto const & got = readers[0]->frames;
      return std::find(got.begin(), got.end(), frame('g')) != got.end();
    }));
    EXPECT_EQ(bundle->currActiveSd(), -1);  // set only while a socket is read

    EXPECT_EQ(mappingsOpened(), path.ring ? 2 : 0);  // a ring on each socket
    bundle->enabledIs(false);
    EXPECT_EQ(std::vector<int>({bundle->sd(), bundle->sdTap(), fcntl(sd, F_GETFD), fcntl(tap, F_GETFD),
                                mappingsOpened()}),
              std::vector<int>({-1, -1, -1, -1, 0}));
    leave();
  }
}

// A program the kernel refuses (no return instruction) is refused on a scratch socket first; tried on a
// live socket it leaves the socket open with its old program, and an empty one detaches.
TEST_F(EthDevPamBundleKernelTest, ARefusedFilterNeverMutesASocket) {
  Ovel::SockFilterProgram const accept{{BPF_RET | BPF_K, 0, 0, 0xffff}}, refused{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12}};
  bundleNew(0x002a, single, accept);
  join(0);  // va0 is a veth: the tap socket, with the guard
  int const tap = bundle->sdTap(), descriptors = descriptorsOpened();
  auto thrown = [](std::function<void()> const & f) {
    try {
      f();
    } catch (Vorn::ErrnoException const & e) {
      return e.errorNumber();
    }
    return 0;
  };
  EXPECT_EQ(thrown([&] { bundle->filterProgramTry(refused); }), EINVAL);
  EXPECT_EQ(thrown([&] { bundle->filterProgramTry(accept); }), 0);
  EXPECT_EQ(thrown([&] { attachOrDetachFilter(tap, true, refused.filter(), refused.len()); }), EINVAL);
  EXPECT_EQ(descriptorsOpened(), descriptors);
  EXPECT_EQ(program(tap).size(), 4u);  // the old one, guard included
  send(0, frame('k'));
  // The tap socket takes every protocol: the peer's own IPv6 chatter may come first.
  ASSERT_TRUE(runUntil([&] {
    auto const & got = readers[0]->frames;
    return std::find(got.begin(), got.end(), frame('k')) != got.end();
  }));
  for (int twice = 0; twice < 2; ++twice) {  // the second finds nothing to detach
    EXPECT_EQ(thrown([&] { attachOrDetachFilter(tap, true, nullptr, 0); }), 0);
  }
  EXPECT_TRUE(program(tap).empty());
}

// The bundle's namespace is deleted and made again under its name, with the device again: once the
// interface's record is withdrawn and comes back with the new ifindex, its frames arrive again.
TEST_F(EthDevPamBundleKernelTest, ANamespaceDeletedAndMadeAgainIsFollowed) {
  bundleNew(testProtocol, single);
  join(0);
  send(0, frame('a'));
  ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 1; }));
  netns().namespaceDel(ns);  // the name goes; the namespace lives on while a socket holds it
  int const sd = pam(0).sd();
  pam(0).enabledIs(false);  // the record is withdrawn, as the manager withdraws it
  pams->intfPamDel(intfId(0));
  readers[0] = nullptr;
  devices->intfStatusByIfIndexDel(ifIndex[0]);
  bundle->doUnrefSd(sd);
  EXPECT_EQ(bundle->sd(), -1);
  netns().namespaceNew(ns);
  netns().vethPairNew(ns, va(0), "vc0", peerNs);  // another peer name: the old peer goes with the old namespace
  netns().linkUp(ns, va(0));
  netns().linkUp(peerNs, "vc0");
  ASSERT_TRUE(netns().waitForOperState(ns, va(0), IF_OPER_UP));
  ifIndex[0] = uint32_t(netns().link(ns, va(0))->ifindex);
  devices->intfStatusByIfIndexIs(ifIndex[0], record(0));
  join(0);
  sendOn(peer, netns().link(peerNs, "vc0")->ifindex, frame('b'));
  ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 1; }));
  EXPECT_EQ(readers[0]->frames[0], frame('b'));
}

}  // namespace
