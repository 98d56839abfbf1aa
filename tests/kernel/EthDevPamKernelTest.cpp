// EthDevPam with its own packet socket, on one end of a veth pair inside a namespace of the test's own;
// the peer end is driven through a raw socket opened in the same namespace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "tests/support/Descriptors.h"
#include "tests/support/NetNs.h"

using Ovel::EthDevPam;
using Ovel::Pkt;
using Ovel::SockFilterProgram;
using testing::ElementsAre;
using Vorn::Ptr;

namespace {

constexpr uint16_t testProtocol = 0x88b5;  // local experimental EtherType: nothing else on the link uses it

std::string frameBytes(char first, size_t length = 60) {
  std::string f("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01", 12);
  f += static_cast<char>(testProtocol >> 8);
  f += static_cast<char>(testProtocol & 0xff);
  f += first;
  f.resize(length, static_cast<char>(0x5a));
  return f;
}

// A filter accepting frames whose first payload byte (offset 14) is `wanted`.
SockFilterProgram firstByteIs(uint8_t wanted) {
  return SockFilterProgram{{BPF_LD | BPF_B | BPF_ABS, 0, 0, 14},
                           {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, wanted},
                           {BPF_RET | BPF_K, 0, 0, 0xffff},
                           {BPF_RET | BPF_K, 0, 0, 0}};
}

struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    while (Ptr<Pkt> pkt = pam->rxPkt()) {
      frames.emplace_back(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen());
      pkts.push_back(pkt);
    }
  }
  Ovel::Pam * pam;
  std::vector<std::string> frames;
  std::vector<Ptr<Pkt>> pkts;
};

class EthDevPamKernelTest : public IntfsmTest::NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped()) return;
    descriptorsBefore = IntfsmTest::openDescriptorCount();
    watchesBefore = loop.watches();
    ns = netns().namespaceNew();
    netns().vethPairNew(ns, "va0", "vb0");
    netns().linkUp(ns, "va0");
    netns().linkUp(ns, "vb0");
    ASSERT_TRUE(netns().waitForOperState(ns, "va0", IF_OPER_UP));
    ASSERT_TRUE(netns().waitForOperState(ns, "vb0", IF_OPER_UP));
    vaIndex = netns().link(ns, "va0")->ifindex;
    vbIndex = netns().link(ns, "vb0")->ifindex;

    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW, htons(testProtocol), ns.c_str());
    ASSERT_GE(peer, 0);
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(testProtocol);
    at.sll_ifindex = vbIndex;
    ASSERT_EQ(bind(peer, reinterpret_cast<sockaddr *>(&at), sizeof at), 0);

    pam = new EthDevPam("va0");
    pam->netNsIs(Ovel::NamespaceName(ns));
    pam->ethProtocolIs(testProtocol);
    pam->perIntfSocketIs(true);
    reader = new Reader(pam);
  }
  void TearDown() override {
    if (!IsSkipped()) {
      reader = nullptr;
      pam = nullptr;
      if (peer >= 0) close(peer);
      EXPECT_EQ(loop.watches(), watchesBefore);
      EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptorsBefore);
    }
    NetNsTest::TearDown();
  }

  void sendFromPeer(std::string const & frame) {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(testProtocol);
    to.sll_ifindex = vbIndex;
    to.sll_halen = ETH_ALEN;
    std::memcpy(to.sll_addr, frame.data(), ETH_ALEN);
    ASSERT_EQ(sendto(peer, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(frame.size()));
  }
  // The next frame the peer receives, or "" after a second without one.
  std::string receiveAtPeer() {
    pollfd p{peer, POLLIN, 0};
    if (poll(&p, 1, 1000) != 1) return "";
    char buffer[2048];
    ssize_t const n = recv(peer, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  }
  bool runUntilFrames(size_t n) {
    return loop.runUntil([&] { return reader->frames.size() >= n; }, 5.0);
  }

  Vorn::ActivityManager & loop = Vorn::activityManager();
  std::string ns;
  int vaIndex = 0;
  int vbIndex = 0;
  int peer = -1;
  int descriptorsBefore = 0;
  uint32_t watchesBefore = 0;
  Ptr<EthDevPam> pam;
  Ptr<Reader> reader;
};

TEST_F(EthDevPamKernelTest, ReceivesFramesSentByThePeer) {
  pam->enabledIs(true);
  EXPECT_EQ(pam->ifIndex(), static_cast<uint32_t>(vaIndex));  // looked up by name inside the namespace
  ASSERT_TRUE(pam->fileDesc());
  std::vector<std::string> sent;
  for (char c = 'a'; c < 'd'; ++c) {
    sent.push_back(frameBytes(c));
    sendFromPeer(sent.back());
  }
  ASSERT_TRUE(runUntilFrames(3)) << reader->frames.size() << " frames";
  EXPECT_EQ(reader->frames, sent);
  EXPECT_EQ(reader->pkts[0]->ifIndex(), static_cast<uint32_t>(vaIndex));
  EXPECT_EQ(reader->pkts[0]->pktType(), PACKET_BROADCAST);
  EXPECT_EQ(pam->readableCount(), 3u);
  EXPECT_EQ(pam->rxErrors(), 0u);
}

TEST_F(EthDevPamKernelTest, TransmitsFramesThePeerReceives) {
  pam->enabledIs(true);
  Ptr<Pkt> pkt = Ovel::globalPktManager().newPkt();
  std::string const frame = frameBytes('t', 64);
  pkt->dataIs(frame.data(), static_cast<uint32_t>(frame.size()));
  EXPECT_TRUE(pam->txPkt(pkt));
  EXPECT_EQ(receiveAtPeer(), frame);
  EXPECT_EQ(pam->txErrors(), 0u);

  Ptr<Pkt> tooBig = Ovel::globalPktManager().newPkt();
  std::string const jumbo = frameBytes('j', 4000);  // above the veth's 1500-byte MTU
  tooBig->dataIs(jumbo.data(), static_cast<uint32_t>(jumbo.size()));
  EXPECT_FALSE(pam->txPkt(tooBig));
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->lastTxErrno(), EMSGSIZE);
}

TEST_F(EthDevPamKernelTest, FilterDropsWhatItShouldAndCanBeChangedWhileEnabled) {
  pam->filterProgramIs(firstByteIs('1'));
  pam->enabledIs(true);
  sendFromPeer(frameBytes('2'));
  sendFromPeer(frameBytes('1'));
  ASSERT_TRUE(runUntilFrames(1));
  loop.runOnce(0.05);  // frames arrive in order: the '2' would have come first
  ASSERT_EQ(reader->frames.size(), 1u);
  EXPECT_EQ(reader->frames[0][14], '1');

  pam->filterProgramIs(firstByteIs('2'));
  sendFromPeer(frameBytes('1'));
  sendFromPeer(frameBytes('2'));
  ASSERT_TRUE(runUntilFrames(2));
  loop.runOnce(0.05);
  ASSERT_EQ(reader->frames.size(), 2u);
  EXPECT_EQ(reader->frames[1][14], '2');
}

TEST_F(EthDevPamKernelTest, VlanTagArrivesBesideTheFrame) {
  // Every protocol: the kernel clears a tag that no VLAN device claims before it hands the frame to
  // sockets bound to one protocol; taps of all protocols see it first, in the auxiliary data.
  pam->ethProtocolIs(0);
  pam->separateDot1QHdrIs(true);
  pam->enabledIs(true);
  std::string const inner = frameBytes('v');
  std::string const tagged = inner.substr(0, 12) + std::string("\x81\x00\x00\x64", 4) + inner.substr(12);
  sendFromPeer(tagged);
  size_t at = 0;
  ASSERT_TRUE(loop.runUntil(
      [&] {
        for (at = 0; at < reader->frames.size(); ++at) {
          if (reader->frames[at] == inner) return true;
        }
        return false;
      },
      5.0));
  Pkt const & pkt = *reader->pkts[at];
  EXPECT_TRUE(pkt.hasVlanTag());
  EXPECT_EQ(pkt.vlanId(), 100);
  EXPECT_EQ(pkt.vlanTpid(), 0x8100);
}

TEST_F(EthDevPamKernelTest, BulkReadsWithReusedPacketsDeliverEveryFrame) {
  reader = nullptr;
  pam = nullptr;
  Ptr<Ovel::EthDevPamInBundle> bulk = new Ovel::EthDevPamInBundle(Vorn::String("va0"));
  bulk->netNsIs(Ovel::NamespaceName(ns));
  bulk->ethProtocolIs(testProtocol);
  bulk->perIntfSocketIs(true);
  bulk->pktReuseIs(true);
  bulk->enableBulkPamReadIs(true);
  bulk->socketReadLimitIs(8);
  pam = bulk;
  reader = new Reader(pam);
  pam->enabledIs(true);
  std::vector<std::string> sent;
  for (int i = 0; i < 40; ++i) {
    sent.push_back(frameBytes(static_cast<char>('A' + i)));
    sendFromPeer(sent.back());
  }
  ASSERT_TRUE(runUntilFrames(40)) << reader->frames.size() << " frames";
  EXPECT_EQ(reader->frames, sent);
  EXPECT_EQ(bulk->queueDropCount(), 0u);
  EXPECT_EQ(bulk->savedPackets(), 8u);
}

TEST_F(EthDevPamKernelTest, DisablingClosesTheSocket) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  ASSERT_GE(sd, 0);
  EXPECT_NE(fcntl(sd, F_GETFD), -1);
  EXPECT_EQ(loop.watches(), watchesBefore + 1);
  pam->enabledIs(false);
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_EQ(fcntl(sd, F_GETFD), -1);
  EXPECT_EQ(loop.watches(), watchesBefore);

  sendFromPeer(frameBytes('x'));
  loop.runOnce(0.05);
  EXPECT_TRUE(reader->frames.empty());

  pam->enabledIs(true);  // and again, on a new socket
  sendFromPeer(frameBytes('y'));
  ASSERT_TRUE(runUntilFrames(1));
  EXPECT_EQ(reader->frames[0][14], 'y');
}

}  // namespace
