// The packet-access manager end to end: the kernel's link table of a namespace of the test's own,
// through the namespace root's kernel interface status, to Pams on two of three veth devices whose
// peers sit in a second namespace, from where a raw socket sends and receives the frames.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/KernelModuleTest.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using IntfsmTest::frame;
using IntfsmTest::testProtocol;
using Vorn::Ptr;

namespace {

class EthDevPamManagerKernelTest : public IntfsmTest::KernelModuleTest {
 protected:
  void SetUp() override {
    KernelModuleTest::SetUp();
    if (IsSkipped()) return;
    ns = netns().namespaceNew();
    peerNs = netns().namespaceNew();
    root = netNsIntfStatusManagerRootFactory(all, locals, true);
    kni = KernelNetInfo::Status::statusNew(ns, Ovel::NamespaceName(ns));
    kni->enabledIs(true);
    root->intfStatusManagerIs(devices, kni, Ovel::NamespaceName(ns));
    for (int i = 0; i < 3; ++i) {
      link[i] = vethUp(ns, "va" + std::to_string(i), "vb" + std::to_string(i), peerNs);
      all->intfStatusIs(intfStatusFactory(id(i)));
      all->intfStatus(id(i))->deviceNameIs("va" + std::to_string(i));
      locals->intfStatusLocalIs(intfStatusLocalFactory(id(i)));
      locals->intfStatusLocal(id(i))->netNsNameIs(Ovel::NamespaceName(ns));
    }
    // Sends to the devices, and receives what the Pams send (a socket never sees its own frames).
    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(testProtocol), peerNs.c_str());
  }
  void TearDown() override {
    if (!IsSkipped()) { manager = nullptr; root = nullptr; kni = nullptr; close(peer); }
    KernelModuleTest::TearDown();  // the devices go with their namespaces
  }

  static Ovel::IntfId id(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i + 1)); }
  void send(int i, char first) { sendOn(peer, link[i].b, frame(first)); }
  Ptr<Ovel::EthDevPam> pam(int i) { return Vorn::ptr_cast<Ovel::EthDevPam>(pams->intfPam(id(i))); }
  // Whether the frames taken so far from interface i's Pam, by their first payload byte, are `expected`.
  bool got(int i, std::string const & expected) {
    while (Ptr<Ovel::Pkt> pkt = pam(i) ? pam(i)->rxPkt() : nullptr) firsts[i] += char(pkt->data()[14]);
    return firsts[i] == expected;
  }

  std::string ns, peerNs;
  VethLink link[3];
  int peer = -1;
  std::string firsts[2];
  Ptr<AllIntfStatusDir> all = allIntfStatusDirFactory("all");
  Ptr<AllIntfStatusLocalDir> locals = allIntfStatusLocalDirFactory("locals");
  Ptr<NetNsIntfStatusManagerRoot> root;
  Ptr<KernelNetInfo::Status> kni;
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamManager> manager;
};

TEST_F(EthDevPamManagerKernelTest, DesiredDevicesGetPamsThatReceiveFilterTransmitAndFollowTheDevice) {
  for (bool perIntfSocket : {false, true}) {
    SCOPED_TRACE(perIntfSocket ? "a socket per Pam" : "the bundle's shared socket");
    manager = ethDevPamManagerFactory(desired, pams, devices);
    manager->netNsIs(Ovel::NamespaceName(ns));
    manager->ethProtocolIs(testProtocol);
    manager->pktReuseIs(true);
    manager->perIntfSocketIs(perIntfSocket);
    manager->handleInitialized();
    manager->enabledIs(true);
    desired->intfDesiredIs(id(0), true);
    desired->intfDesiredIs(id(1), true);
    ASSERT_TRUE(runUntil([&] { return pams->intfPams() == 2; }));
    EthDevPamBundle const & bundle = *manager->edpBundle();
    EXPECT_EQ(std::vector<int>({pam(0)->ownSocket(), pam(1)->ownSocket(), pam(0)->sd() == pam(1)->sd(), bundle.sd() == -1}),
              std::vector<int>({perIntfSocket, perIntfSocket, !perIntfSocket, perIntfSocket}));
    firsts[0] = firsts[1] = "";
    for (int i : {0, 1, 2}) send(i, char('a' + i));  // the third is known, but has no Pam
    ASSERT_TRUE(runUntil([&] { return got(0, "a") && got(1, "b") && (perIntfSocket || bundle.pamNotReadyDropCount() == 1); }));

    manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_LD | BPF_B | BPF_ABS, 0, 0, 14},
                                                     {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 'k'},
                                                     {BPF_RET | BPF_K, 0, 0, 0xffff},
                                                     {BPF_RET | BPF_K, 0, 0, 0}});
    for (int i : {0, 1}) {
      send(i, 'x');  // dropped in the kernel: only the frame behind it arrives
      send(i, 'k');
    }
    ASSERT_TRUE(runUntil([&] { return got(0, "ak") && got(1, "bk"); }));
    // A program the kernel refuses (it does not end in a return) raises its errno; the one in force stays.
    EXPECT_EQ(IntfsmTest::thrownErrno([&] { manager->filterProgramIs({{BPF_LD | BPF_B | BPF_ABS, 0, 0, 14}}); }), EINVAL);
    for (int i : {0, 1}) {
      send(i, 'x');
      send(i, 'k');
    }
    ASSERT_TRUE(runUntil([&] { return got(0, "akk") && got(1, "bkk"); }));
    manager->filterProgramIs({});  // cleared: every frame again, on the same sockets
    for (int i : {0, 1}) send(i, 'x');
    ASSERT_TRUE(runUntil([&] { return got(0, "akkx") && got(1, "bkkx"); }));

    // Out of the Pam's own interface (the shared socket, addressed to va1): it arrives at va1's peer.
    Ptr<Ovel::Pkt> out = Ovel::globalPktManager().newPkt();
    out->dataIs(frame('t').data(), 60);
    EXPECT_TRUE(pam(1)->txPkt(out));
    pollfd ready{peer, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 2000), 1);
    char bytes[100];
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    EXPECT_EQ(recvfrom(peer, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &length), 60);
    EXPECT_EQ(std::pair(bytes[14], from.sll_ifindex), std::pair('t', link[1].b));

    // The device goes, and comes back under the same name with another ifindex.
    uint32_t const old = pam(0)->ifIndex();
    netns().linkDel(ns, "va0");
    ASSERT_TRUE(runUntil([&] { return !pams->intfPam(id(0)); }));
    link[0] = vethUp(ns, "va0", "vb0", peerNs);
    uint32_t const now = uint32_t(link[0].a);
    ASSERT_TRUE(runUntil([&] { return pam(0) && pam(0)->ifIndex() == now; }));
    EXPECT_NE(now, old);
    send(0, 'k');
    ASSERT_TRUE(runUntil([&] { return got(0, "akkxk"); }));

    manager->handleDestruction();
    EXPECT_EQ(pams->intfPams(), 0u);
    desired->intfDesiredDelAll();
  }
}

}  // namespace
