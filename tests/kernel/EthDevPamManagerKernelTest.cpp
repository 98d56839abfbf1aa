// The packet-access manager end to end: the kernel's link table of a namespace of the test's own,
// through the namespace root's kernel interface status, to Pams on two of three veth devices whose
// peers sit in a second namespace, from where raw sockets send and receive the frames.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "tests/support/Descriptors.h"
#include "tests/support/NetNs.h"

using namespace Interface;
using Ovel::IntfId;
using Vorn::Ptr;

namespace {

constexpr uint16_t testProtocol = 0x88b5;  // local experimental EtherType

std::string frame(char first) {
  std::string f("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01\x88\xb5", 14);
  f += first;
  f.resize(60, 0x5a);
  return f;
}

struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    while (Ptr<Ovel::Pkt> pkt = pam->rxPkt()) firsts += char(pkt->data()[14]);
  }
  Ovel::Pam * pam;
  std::string firsts;  // the first payload byte of each frame, in order
};

class EthDevPamManagerKernelTest : public IntfsmTest::NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped()) return;
    Vorn::activityManager();  // lives as long as the process: made before counting
    descriptors = IntfsmTest::openDescriptorCount();
    ns = netns().namespaceNew();
    peerNs = netns().namespaceNew();
    root = netNsIntfStatusManagerRootFactory(all, locals, true);
    kni = KernelNetInfo::Status::statusNew(ns, Ovel::NamespaceName(ns));
    kni->enabledIs(true);
    root->intfStatusManagerIs(devices, kni, Ovel::NamespaceName(ns));
    for (int i = 0; i < 3; ++i) {
      vethNew(i);
      all->intfStatusIs(intfStatusFactory(id(i)));
      all->intfStatus(id(i))->deviceNameIs("va" + std::to_string(i));
      locals->intfStatusLocalIs(intfStatusLocalFactory(id(i)));
      locals->intfStatusLocal(id(i))->netNsNameIs(Ovel::NamespaceName(ns));
    }
    peer = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, peerNs.c_str());  // protocol 0: sends only
  }
  void TearDown() override {
    if (!IsSkipped()) {
      manager = nullptr;
      root = nullptr;
      kni = nullptr;
      close(peer);
      EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
    }
    std::vector<std::string> const made = IsSkipped() ? std::vector<std::string>() : netns().namespaces();
    NetNsTest::TearDown();
    for (std::string const & n : made) EXPECT_FALSE(std::filesystem::exists("/run/netns/" + n)) << n;
  }

  static IntfId id(int i) { return IntfId("Ethernet" + std::to_string(i + 1)); }
  void vethNew(int i) {
    std::string const a = "va" + std::to_string(i), b = "vb" + std::to_string(i);
    netns().vethPairNew(ns, a, b, peerNs);
    netns().linkUp(ns, a);
    netns().linkUp(peerNs, b);
    ASSERT_TRUE(netns().waitForOperState(ns, a, IF_OPER_UP));
  }
  int peerIndex(int i) { return netns().link(peerNs, "vb" + std::to_string(i))->ifindex; }
  void send(int i, char first) {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = peerIndex(i);
    std::string const f = frame(first);
    ASSERT_EQ(sendto(peer, f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to), ssize_t(f.size()));
  }
  Ptr<Ovel::EthDevPam> pam(int i) { return Vorn::ptr_cast<Ovel::EthDevPam>(pams->intfPam(id(i))); }
  bool runUntil(std::function<bool()> const & done) {
    for (int pass = 0; pass < 1000 && !done(); ++pass) Vorn::activityManager().runOnce(0.01);
    return done();
  }

  int descriptors = 0;
  std::string ns, peerNs;
  int peer = -1;
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
    if (perIntfSocket) {
      EXPECT_TRUE(pam(0)->ownSocket() && pam(1)->ownSocket());
      EXPECT_NE(pam(0)->sd(), pam(1)->sd());
      EXPECT_EQ(bundle.sd(), -1);
    } else {
      EXPECT_EQ(std::vector<int>({pam(0)->sd(), pam(1)->sd(), bundle.sdRef()}), std::vector<int>({bundle.sd(), bundle.sd(), 2}));
    }
    Ptr<Reader> readers[2] = {new Reader(pams->intfPam(id(0))), new Reader(pams->intfPam(id(1)))};
    send(0, 'a');
    send(1, 'b');
    send(2, 'c');
    ASSERT_TRUE(runUntil([&] {
      return readers[0]->firsts == "a" && readers[1]->firsts == "b" && (perIntfSocket || bundle.pamNotReadyDropCount() == 1);
    }));

    manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_LD | BPF_B | BPF_ABS, 0, 0, 14},
                                                     {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 'k'},
                                                     {BPF_RET | BPF_K, 0, 0, 0xffff},
                                                     {BPF_RET | BPF_K, 0, 0, 0}});
    for (int i : {0, 1}) {
      send(i, 'x');  // dropped in the kernel: only frames behind it arrive
      send(i, 'k');
    }
    ASSERT_TRUE(runUntil([&] { return readers[0]->firsts == "ak" && readers[1]->firsts == "bk"; }));

    // Out of the Pam's own interface: the peer of va1 receives it.
    int const listener = Ovel::socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(testProtocol), peerNs.c_str());
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(testProtocol);
    at.sll_ifindex = peerIndex(1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    Ptr<Ovel::Pkt> out = Ovel::globalPktManager().newPkt();
    std::string const t = frame('t');
    out->dataIs(t.data(), uint32_t(t.size()));
    EXPECT_TRUE(pam(1)->txPkt(out));
    pollfd ready{listener, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 2000), 1);
    char got[100];
    EXPECT_EQ(recv(listener, got, sizeof got, 0), 60);
    EXPECT_EQ(got[14], 't');
    close(listener);

    // The device goes, and comes back under the same name with another ifindex.
    uint32_t const old = pam(0)->ifIndex();
    netns().linkDel(ns, "va0");
    ASSERT_TRUE(runUntil([&] { return !pams->intfPam(id(0)); }));
    vethNew(0);
    uint32_t const now = uint32_t(netns().link(ns, "va0")->ifindex);
    ASSERT_TRUE(runUntil([&] { return pam(0) && pam(0)->ifIndex() == now; }));
    EXPECT_NE(now, old);
    readers[0] = new Reader(pams->intfPam(id(0)));
    send(0, 'k');
    ASSERT_TRUE(runUntil([&] { return readers[0]->firsts == "k"; }));

    manager->enabledIs(false);
    EXPECT_EQ(pams->intfPams(), 0u);
    desired->intfDesiredDelAll();
    manager->filterProgramIs({});
  }
}

}  // namespace
