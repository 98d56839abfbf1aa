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
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "tests/support/Descriptors.h"
#include "tests/support/NetNs.h"

using Ovel::EthDevPam;
using Ovel::Pkt;
using Ovel::SockFilterProgram;
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

Ptr<Pkt> pktOf(std::string const & frame) {
  Ptr<Pkt> pkt = Ovel::globalPktManager().newPkt();
  pkt->dataIs(frame.data(), static_cast<uint32_t>(frame.size()));
  return pkt;
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

    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW, htons(testProtocol), ns.c_str());
    ASSERT_GE(peer, 0);
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(testProtocol);
    at.sll_ifindex = netns().link(ns, "vb0")->ifindex;
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

  // Out of vb0, to which the peer's socket is bound.
  void sendFromPeer(std::string const & frame) {
    ASSERT_EQ(send(peer, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
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
  int peer = -1;
  int descriptorsBefore = 0;
  uint32_t watchesBefore = 0;
  Ptr<EthDevPam> pam;
  Ptr<Reader> reader;
};

TEST_F(EthDevPamKernelTest, ReceivesFramesSentByThePeerAndStopsWhenDisabled) {
  pam->enabledIs(true);
  EXPECT_EQ(pam->ifIndex(), static_cast<uint32_t>(vaIndex));  // looked up by name inside the namespace
  int const sd = pam->sd();
  EXPECT_EQ(loop.watches(), watchesBefore + 1);
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

  pam->enabledIs(false);
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_EQ(fcntl(sd, F_GETFD), -1);
  EXPECT_EQ(loop.watches(), watchesBefore);
  sendFromPeer(frameBytes('x'));
  loop.runOnce(0.05);
  pam->enabledIs(true);  // and again, on a new socket
  sendFromPeer(frameBytes('y'));
  ASSERT_TRUE(runUntilFrames(4));
  EXPECT_EQ(reader->frames[3][14], 'y');
}

TEST_F(EthDevPamKernelTest, TransmitsFramesThePeerReceivesAndCountsRefusedOnes) {
  pam->enabledIs(true);
  std::string const frame = frameBytes('t', 64);
  EXPECT_TRUE(pam->txPkt(pktOf(frame)));
  EXPECT_EQ(receiveAtPeer(), frame);
  EXPECT_EQ(pam->txErrors(), 0u);

  EXPECT_FALSE(pam->txPkt(pktOf(frameBytes('j', 4000))));  // above the veth's 1500-byte MTU
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->lastTxErrno(), EMSGSIZE);
}

TEST_F(EthDevPamKernelTest, FilterDropsWhatItShouldAndCanBeChangedWhileEnabled) {
  pam->filterProgramIs(firstByteIs('1'));
  pam->enabledIs(true);
  for (char wanted : {'1', '2'}) {
    pam->filterProgramIs(firstByteIs(static_cast<uint8_t>(wanted)));
    sendFromPeer(frameBytes(static_cast<char>('2' + '1' - wanted)));
    sendFromPeer(frameBytes(wanted));
    size_t const before = reader->frames.size();
    ASSERT_TRUE(runUntilFrames(before + 1));
    loop.runOnce(0.05);  // frames arrive in order: the unwanted one would have come first
    ASSERT_EQ(reader->frames.size(), before + 1);
    EXPECT_EQ(reader->frames.back()[14], wanted);
  }
}

TEST_F(EthDevPamKernelTest, VlanTagArrivesBesideTheFrame) {
  // Every protocol: the kernel clears a tag that no VLAN device claims before it hands the frame to
  // sockets bound to one protocol; taps of all protocols see it first, in the auxiliary data.
  pam->ethProtocolIs(0);
  pam->separateDot1QHdrIs(true);
  pam->enabledIs(true);
  std::string const inner = frameBytes('v');
  sendFromPeer(inner.substr(0, 12) + std::string("\x81\x00\x00\x64", 4) + inner.substr(12));
  auto const found = [&] { return std::find(reader->frames.begin(), reader->frames.end(), inner); };
  ASSERT_TRUE(loop.runUntil([&] { return found() != reader->frames.end(); }, 5.0));
  Pkt const & pkt = *reader->pkts[static_cast<size_t>(found() - reader->frames.begin())];
  EXPECT_TRUE(pkt.hasVlanTag());
  EXPECT_EQ(pkt.vlanId(), 100);
  EXPECT_EQ(pkt.vlanTpid(), 0x8100);
}

}  // namespace
