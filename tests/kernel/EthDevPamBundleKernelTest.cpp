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
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/NetNs.h"

using namespace Interface;
using Vorn::Ptr;

namespace {

constexpr uint16_t testProtocol = 0x88b5;  // local experimental EtherType: the table keeps it as it is
constexpr int pairs = 3;

struct Path {
  char const * name;
  bool bulk, ring;
};
constexpr Path single{"single", false, false}, bulk{"bulk", true, false}, ring{"ring", false, true};

// Mappings of sockets (packet rings) in this process.
int mappedSockets() {
  std::ifstream maps("/proc/self/maps");
  int n = 0;
  for (std::string line; std::getline(maps, line);) n += line.find("socket:[") != std::string::npos;
  return n;
}

std::string frame(char tag, uint16_t type = testProtocol) {
  std::string f("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01", 12);
  f += char(type >> 8);
  f += char(type & 0xff);
  f += tag;
  f.resize(60, 0x5a);
  return f;
}

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

std::string bytesOf(Ovel::Pkt const & pkt) { return std::string(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen()); }

struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::EthDevPamInBundle> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    ++calls;
    if (!consume) return;
    while (Ptr<Ovel::Pkt> pkt = pam->rxPkt()) {
      frames.push_back(bytesOf(*pkt));
      held.push_back(pkt);  // kept across later reads
    }
  }
  Ovel::EthDevPamInBundle * pam;  // held by the collection while the reader lives
  bool consume = true;
  unsigned calls = 0;
  std::vector<std::string> frames;
  std::vector<Ptr<Ovel::Pkt>> held;
};

class EthDevPamBundleKernelTest : public IntfsmTest::NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped()) return;
    (void)loop.watches();  // the loop's own descriptor exists before counting
    descriptorsBefore = IntfsmTest::openDescriptorCount();
    mappingsBefore = mappedSockets();
    ns = netns().namespaceNew();
    peerNs = netns().namespaceNew();
    for (int i = 0; i < pairs; ++i) {
      netns().vethPairNew(ns, va(i), "vb" + std::to_string(i), peerNs);
      netns().linkUp(ns, va(i));
      netns().linkUp(peerNs, "vb" + std::to_string(i));
    }
    for (int i = 0; i < pairs; ++i) {
      ASSERT_TRUE(netns().waitForOperState(ns, va(i), IF_OPER_UP));
      ifIndex[i] = uint32_t(netns().link(ns, va(i))->ifindex);
      peerIndex[i] = netns().link(peerNs, "vb" + std::to_string(i))->ifindex;
      devices->intfStatusByIfIndexIs(ifIndex[i], record(i));
    }
    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, peerNs.c_str());  // protocol 0: sends only
    own = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, ns.c_str());
  }
  void TearDown() override {
    if (!IsSkipped()) {
      leave();
      close(peer);
      close(own);
      EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptorsBefore);
      EXPECT_EQ(mappedSockets(), mappingsBefore);
    }
    NetNsTest::TearDown();
  }

  static std::string va(int i) { return "va" + std::to_string(i); }
  static Ovel::IntfId intfId(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i + 1)); }
  IntfStatusAndDeviceName record(int i) { return {intfStatusFactory(intfId(i)), va(i), ifIndex[i]}; }

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
  // Out of the device of index `ifIndex` that `fd` sees.
  static void sendOn(int fd, int ifIndex, std::string const & f) {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = ifIndex;
    ASSERT_EQ(sendto(fd, f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to), ssize_t(f.size()));
  }
  void send(int i, std::string const & f) { sendOn(peer, peerIndex[i], f); }
  // Short passes: work done on an activity would otherwise leave the pass blocked for the whole timeout.
  bool runUntil(std::function<bool()> const & done) {
    for (int pass = 0; pass < 500 && !done(); ++pass) loop.runOnce(0.01);
    return done();
  }

  Vorn::ActivityManager & loop = Vorn::activityManager();
  int descriptorsBefore = 0, mappingsBefore = 0;
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
    for (char round = 0; round < 3; ++round) {  // readers hold every frame across the later reads
      send(2, frame('z'));  // first: the frames held sit in the last slots a read fills
      for (int i : {0, 0, 1}) {
        sent[i].push_back(frame(char('a' + 8 * i + 2 * round + char(sent[i].size() % 2))));
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
      for (size_t k = 0; k < sent[i].size(); ++k) EXPECT_EQ(bytesOf(*readers[i]->held[k]), sent[i][k]);
      EXPECT_EQ(readers[i]->held[0]->ifIndex(), ifIndex[i]);
    }
    EXPECT_EQ(bundle->maxProcessedPkts() > 0, path.bulk || path.ring);
    int version = -1;
    socklen_t length = sizeof version;
    getsockopt(bundle->sd(), SOL_PACKET, PACKET_VERSION, &version, &length);
    EXPECT_EQ(std::vector<int>({bundle->rxRingMapped(bundle->sd()), mappedSockets() - mappingsBefore, version}),
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
    loop.runOnce(0.05);
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

TEST_F(EthDevPamBundleKernelTest, AReaderThatTakesNothingIsServedAgainOnTheActivityUntilItDoes) {
  for (Path path : {bulk, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(testProtocol, path);
    join(0);
    auto activity = Vorn::activityManager().activityIs("edpBundleActivity", 99);
    Ptr<EthDevPamBundleActivitySm> sm = new EthDevPamBundleActivitySm(activity, nullptr);
    sm->ethDevPamBundleIs(bundle);
    uint64_t const runBefore = activity->callsRun();
    readers[0]->consume = false;
    send(0, frame('a'));
    send(0, frame('b'));
    ASSERT_TRUE(runUntil([&] { return bundle->schedPktDelivery() >= 3; }));
    EXPECT_GE(readers[0]->calls, 3u);  // once after the read, then once per pass of the activity
    EXPECT_GE(activity->callsRun() - runBefore, 2u);
    readers[0]->consume = true;
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 2; }));
    uint32_t const scheduled = bundle->schedPktDelivery();
    loop.runOnce(0.05);
    loop.runOnce(0.05);
    EXPECT_EQ(bundle->schedPktDelivery(), scheduled);
    EXPECT_TRUE(bundle->actPamCollection()->empty());
    sm = nullptr;
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
    Ovel::EthDevPamInBundle & pam = *readers[0]->pam;
    pam.maxRxPktsIs(3);
    pam.headDropPolicyIs(true);
    readers[0]->consume = false;
    // 12 frames in batches of 4: more than the ring's 8 slots, so its slots must come back while
    // the reader holds on to its frames.
    for (int batch = 0; batch < 3; ++batch) {
      for (int k = 0; k < 4; ++k) send(0, frame(char('a' + 4 * batch + k)));
      ASSERT_TRUE(runUntil([&] { return pam.queueDropCount() + pam.curRxPkts() == 4u * (batch + 1); }));
    }
    readers[0]->consume = true;
    send(0, frame('n'));  // the oldest waiting frame makes room for it
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 3; }));
    EXPECT_EQ(readers[0]->frames, std::vector<std::string>({frame('k'), frame('l'), frame('n')}));
    EXPECT_EQ(pam.queueDropCount(), 10u);
    EXPECT_EQ(kernelStats(bundle->sd()), std::vector<unsigned>({13, 0}));
    EXPECT_EQ(bundle->noPamDropCount() + bundle->pamNotReadyDropCount() + bundle->rxErrors(), 0u);
    leave();
  }
  // A block that is not a whole number of pages: the kernel refuses the ring and the socket goes.
  bundleNew(testProtocol, ring);
  bundle->rxRingBlockSizeIs(6000);
  int errorNumber = 0;
  try {
    bundle->doGetSd(va(0));
  } catch (Vorn::ErrnoException const & e) {
    errorNumber = e.errorNumber();
  }
  EXPECT_EQ(std::vector<int>({errorNumber, bundle->sd(), bundle->sdRef(), IntfsmTest::openDescriptorCount() - descriptorsBefore,
                              mappedSockets() - mappingsBefore}),
            std::vector<int>({EINVAL, -1, 0, 2, 0}));  // the test's own two sending sockets
}

TEST_F(EthDevPamBundleKernelTest, AVethOnTheFabricProtocolGetsTheGuardedTapSocketAndDisablingClosesBoth) {
  for (Path path : {single, ring}) {
    SCOPED_TRACE(path.name);
    bundleNew(0x002a, path, Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
    join(0);
    int const sd = bundle->sd(), tap = bundle->sdTap();
    ASSERT_GE(tap, 0);
    EXPECT_NE(tap, sd);
    EXPECT_EQ(readers[0]->pam->sd(), tap);
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
    ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 1; }));  // through the tap socket
    EXPECT_EQ(bundle->currActiveSd(), -1);  // set only while a socket is read

    EXPECT_EQ(mappedSockets() - mappingsBefore, path.ring ? 2 : 0);  // a ring on each socket
    bundle->enabledIs(false);
    EXPECT_EQ(std::vector<int>({bundle->sd(), bundle->sdTap(), fcntl(sd, F_GETFD), fcntl(tap, F_GETFD),
                                mappedSockets() - mappingsBefore}),
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
  int const tap = bundle->sdTap(), descriptors = IntfsmTest::openDescriptorCount();
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
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
  EXPECT_EQ(program(tap).size(), 4u);  // the old one, guard included
  send(0, frame('k'));
  ASSERT_TRUE(runUntil([&] { return readers[0]->frames.size() == 1; }));
  for (int twice = 0; twice < 2; ++twice) {  // the second finds nothing to detach
    EXPECT_EQ(thrown([&] { attachOrDetachFilter(tap, true, nullptr, 0); }), 0);
  }
  EXPECT_TRUE(program(tap).empty());
}

}  // namespace
