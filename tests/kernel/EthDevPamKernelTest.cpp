// EthDevPam with its own packet socket, on one end of a veth pair inside a namespace of the test's own;
// the peer end is driven through a raw socket opened in the same namespace. Filters on a Pam's own
// socket are in the packet-access manager's kernel test.
#include "intfsm/foundation/ovel/EthDevPam.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/SocketAt.h"
#include "tests/support/KernelModuleTest.h"
#include "tests/support/Packets.h"

using IntfsmTest::Reader;
using IntfsmTest::testProtocol;
using Ovel::Pkt;
using Vorn::Ptr;

namespace {

// A frame of `length` bytes whose first payload byte (offset 14) is `first`.
std::string frame(char first, size_t length = 60) { return IntfsmTest::frame(first, testProtocol, length); }

class EthDevPamKernelTest : public IntfsmTest::KernelModuleTest {
 protected:
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    ns = netns().namespaceNew();
    auto const link = vethUp(ns, "va0", "vb0");
    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW, htons(testProtocol), ns.c_str());
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(testProtocol);
    at.sll_ifindex = link.b;
    ASSERT_EQ(bind(peer, reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    pam->netNsIs(Ovel::NamespaceName(ns));
    pam->ethProtocolIs(testProtocol);
    pam->perIntfSocketIs(true);
  }
  void TearDown() override {
    reader = nullptr;
    pam = nullptr;
    if (peer >= 0) ::close(peer);
    KernelModuleTest::TearDown();
  }
  // Out of vb0, to which the peer's socket is bound.
  void sendFromPeer(std::string const & f) { ASSERT_EQ(send(peer, f.data(), f.size(), 0), static_cast<ssize_t>(f.size())); }
  // The next frame the peer receives, or "" after a second without one.
  std::string receiveAtPeer() {
    pollfd p{peer, POLLIN, 0};
    char buffer[2048];
    ssize_t const n = poll(&p, 1, 1000) == 1 ? recv(peer, buffer, sizeof buffer, 0) : 0;
    return std::string(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  bool runUntilFrames(size_t n) { return runUntil([&] { return reader->frames.size() >= n; }); }

  std::string ns;
  int peer = -1;
  Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam("va0");
  Ptr<Reader> reader = new Reader(pam);
};

// Looked up by name inside the namespace; frames arrive with the receiving ifindex and packet type;
// disabled, the socket is closed and unwatched, and enabled again, a new one reads.
TEST_F(EthDevPamKernelTest, ReceivesFramesSentByThePeerAndStopsWhenDisabled) {
  pam->enabledIs(true);
  EXPECT_EQ(pam->ifIndex(), static_cast<uint32_t>(netns().link(ns, "va0")->ifindex));
  int const sd = pam->sd();
  std::vector<std::string> const sent = {frame('a'), frame('b'), frame('c')};
  timespec sentAt{};
  clock_gettime(CLOCK_REALTIME, &sentAt);
  for (auto const & f : sent) sendFromPeer(f);
  ASSERT_TRUE(runUntilFrames(3)) << reader->frames.size() << " frames";
  EXPECT_EQ(std::tuple(reader->frames, reader->held[0]->ifIndex(), reader->held[0]->pktType(), pam->rxErrors()),
            std::tuple(sent, pam->ifIndex(), PACKET_BROADCAST, 0u));
  EXPECT_LT(reader->held[2]->rxTime() - (uint64_t(sentAt.tv_sec) * 1000000000u + uint64_t(sentAt.tv_nsec)), 5000000u);
  pam->enabledIs(false);
  EXPECT_EQ(std::tuple(fcntl(sd, F_GETFD), loop().watches()), std::tuple(-1, 0u));  // closed, not watched
  sendFromPeer(frame('x'));
  loop().runOnce(0.05);
  pam->enabledIs(true);
  sendFromPeer(frame('y'));
  ASSERT_TRUE(runUntilFrames(4));
  EXPECT_EQ(reader->frames[3][14], 'y');
}

TEST_F(EthDevPamKernelTest, TransmitsFramesThePeerReceivesAndCountsRefusedOnes) {
  pam->enabledIs(true);
  EXPECT_TRUE(pam->txPkt(IntfsmTest::pktOf(frame('t', 64))));
  EXPECT_EQ(receiveAtPeer(), frame('t', 64));
  EXPECT_FALSE(pam->txPkt(IntfsmTest::pktOf(frame('j', 4000))));  // above the veth's 1500-byte MTU
  EXPECT_EQ(std::tuple(pam->txErrors(), pam->lastTxErrno()), std::tuple(1u, EMSGSIZE));
}

// Every protocol: the kernel clears a tag that no VLAN device claims before it hands the frame to
// sockets bound to one protocol; taps of all protocols see it first, in the auxiliary data.
TEST_F(EthDevPamKernelTest, AVlanTagArrivesBesideTheFrame) {
  pam->ethProtocolIs(0);
  pam->separateDot1QHdrIs(true);
  pam->enabledIs(true);
  std::string const inner = frame('v');
  sendFromPeer(inner.substr(0, 12) + std::string("\x81\x00\x00\x64", 4) + inner.substr(12));
  auto const found = [&] { return std::find(reader->frames.begin(), reader->frames.end(), inner); };
  ASSERT_TRUE(runUntil([&] { return found() != reader->frames.end(); }));
  Pkt const & pkt = *reader->held[static_cast<size_t>(found() - reader->frames.begin())];
  EXPECT_EQ(std::tuple(pkt.vlanId(), pkt.vlanTpid()), std::tuple(100, 0x8100));
}

}  // namespace
