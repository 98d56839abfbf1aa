#include "intfsm/foundation/ovel/EthDevPam.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

using IntfsmTest::FakePlatform;
using IntfsmTest::NotificationLog;
using IntfsmTest::thrownText;
using Kind = IntfsmTest::FakePlatform::Kind;
using Ovel::EthDevPam;
using Ovel::EthDevPamInBundle;
using Ovel::Pkt;
using Ovel::SockFilterProgram;
using testing::ElementsAre;
using testing::IsEmpty;
using Vorn::Ptr;

namespace {

struct OptionRecorder : EthDevPam::NotifieeConst {
  void onNetNs() override { log.add("onNetNs"); }
  void onAllMulticast() override { log.add("onAllMulticast"); }
  void onSockRcvBuf() override { log.add("onSockRcvBuf"); }
  void onSockPrio() override { log.add("onSockPrio"); }
  void onBroadcast() override { log.add("onBroadcast"); }
  void onPktReuse() override { log.add("onPktReuse"); }
  void onSeparateDot1QHdr() override { log.add("onSeparateDot1QHdr"); }
  void onPerIntfSocket() override { log.add("onPerIntfSocket"); }
  void onSocketReadLimit() override { log.add("onSocketReadLimit"); }
  void onEnabled() override { log.add("onEnabled"); }
  void onSd() override { log.add("onSd"); }
  void onIfIndex() override { log.add("onIfIndex"); }
  void onCreateVornFileDescOnEnabled() override { log.add("onCreateVornFileDescOnEnabled"); }
  void onFileDesc() override { log.add("onFileDesc"); }
  void onEthProtocol() override { log.add("onEthProtocol"); }
  void onMaxRxPktData() override { log.add("onMaxRxPktData"); }
  void onListenAddr() override { log.add("onListenAddr"); }
  void onFilterProgram() override { log.add("onFilterProgram"); }
  NotificationLog log;
};

// Takes one frame per readable notification, as agents' readers do.
struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    Ptr<Pkt> pkt = pam->rxPkt();
    if (!pkt) return;
    frames.emplace_back(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen());
    pkts.push_back(pkt);
    if (keepOnly) pkts.clear();
    if (onFrame) onFrame();
  }
  bool keepOnly = true;  // let the packet go at once: the steady state
  std::vector<std::string> frames;
  std::vector<Ptr<Pkt>> pkts;
  std::function<void()> onFrame;
  Ovel::Pam * pam;  // outlives the reader in every test
};

SockFilterProgram acceptAll() { return SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}}; }
SockFilterProgram lldpOnly() {
  return SockFilterProgram{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                           {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0x88cc},
                           {BPF_RET | BPF_K, 0, 0, 0xffff},
                           {BPF_RET | BPF_K, 0, 0, 0}};
}

template <class T>
T valueOf(std::string const & bytes) {
  T v{};
  std::memcpy(&v, bytes.data(), std::min(sizeof v, bytes.size()));
  return v;
}

// A frame: broadcast destination, a fixed source, `type`, then `payload`.
std::string frameBytes(uint16_t type, std::string const & payload) {
  std::string f("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01", 12);
  f += static_cast<char>(type >> 8);
  f += static_cast<char>(type & 0xff);
  return f + payload;
}

Ptr<Pkt> pktOf(std::string const & bytes) {
  Ptr<Pkt> pkt = Ovel::globalPktManager().newPkt();
  pkt->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
  return pkt;
}

class EthDevPamTest : public testing::Test {
 protected:
  void SetUp() override {
    pam->ifIndexIs(7);
    pam->perIntfSocketIs(true);
    pam->createVornFileDescOnEnabledIs(false);  // fake descriptors cannot be watched by epoll
  }
  // The setsockopt calls as "level/option".
  std::vector<std::string> optionsSet() const {
    std::vector<std::string> out;
    for (auto const & c : fake.calls(Kind::setsockopt)) out.push_back(std::to_string(c.a) + "/" + std::to_string(c.b));
    return out;
  }
  std::vector<Kind> kinds() const {
    std::vector<Kind> out;
    for (auto const & c : fake.calls()) out.push_back(c.kind);
    return out;
  }

  FakePlatform fake;
  Ptr<EthDevPam> pam = new EthDevPam("et1");
};

TEST_F(EthDevPamTest, DefaultsAndRangeChecks) {
  Ptr<EthDevPam> fresh = new EthDevPam("et2");
  EXPECT_EQ(fresh->name(), "et2");
  EXPECT_TRUE(fresh->netNs().empty());
  EXPECT_EQ(fresh->sd(), -1);
  EXPECT_EQ(fresh->ifIndex(), 0u);
  EXPECT_FALSE(fresh->enabled());
  EXPECT_FALSE(fresh->perIntfSocket());
  EXPECT_TRUE(fresh->createVornFileDescOnEnabled());
  EXPECT_EQ(fresh->socketReadLimit(), 15);
  EXPECT_EQ(fresh->maxRxPktData(), 1518u);
  EXPECT_EQ(fresh->ethProtocol(), 0u);
  EXPECT_FALSE(fresh->usable());

  fresh->sockPrioIs(15);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { fresh->sockPrioIs(16); }),
            "EthDevPam::sockPrio < 0 or > 15 not allowed");
  EXPECT_EQ(fresh->sockPrio(), 15u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { fresh->socketReadLimitIs(0); }),
            "EthDevPam::socketReadLimit < 1 or > 1024 not allowed");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { fresh->socketReadLimitIs(1025); }),
            "EthDevPam::socketReadLimit < 1 or > 1024 not allowed");
  EXPECT_EQ(fresh->socketReadLimit(), 15);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { fresh->sdIs(-2); }), "EthDevPam::sd < -1 not allowed");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { fresh->maxRxPktDataIs(262145); }),
            "EthDevPamBase::maxRxPktData > 262144 not allowed");
  EXPECT_EQ(fresh->maxRxPktData(), 1518u);
}

TEST_F(EthDevPamTest, OptionsNotifyOnChangeOnly) {
  Ptr<OptionRecorder> recorder = new OptionRecorder;
  recorder->notifierIs(pam);
  for (int round = 0; round < 2; ++round) {
    pam->netNsIs(Ovel::NamespaceName("blue"));
    pam->allMulticastIs(true);
    pam->sockRcvBufIs(1 << 20);
    pam->sockPrioIs(3);
    pam->broadcastIs(true);
    pam->pktReuseIs(true);
    pam->separateDot1QHdrIs(true);
    pam->socketReadLimitIs(4);
    pam->ifIndexIs(9);
    pam->createVornFileDescOnEnabledIs(true);
    pam->ethProtocolIs(0x88cc);
    pam->maxRxPktDataIs(9000);
    pam->listenAddrIs(Ovel::EthAddr("01:80:c2:00:00:0e"));
    pam->filterProgramIs(lldpOnly());
    pam->sdIs(3);
  }
  EXPECT_THAT(recorder->log.take(),
              ElementsAre("onNetNs", "onAllMulticast", "onSockRcvBuf", "onSockPrio", "onBroadcast", "onPktReuse",
                          "onSeparateDot1QHdr", "onSocketReadLimit", "onIfIndex", "onCreateVornFileDescOnEnabled",
                          "onEthProtocol", "onMaxRxPktData", "onListenAddr", "onFilterProgram", "onSd"));
  EXPECT_THAT(fake.calls(), IsEmpty());  // nothing reaches the kernel while no own socket is open
}

TEST_F(EthDevPamTest, ReceivePathRules) {
  pam->perIntfSocketIs(false);
  EXPECT_FALSE(pam->usable());  // no descriptor
  pam->sdIs(1234);              // the bundle's shared socket
  EXPECT_TRUE(pam->usable());
  pam->ifIndexIs(0);
  EXPECT_FALSE(pam->usable());
  pam->ifIndexIs(7);

  pam->enabledIs(true);  // in a bundle, enabling opens nothing
  EXPECT_TRUE(pam->enabled());
  EXPECT_FALSE(pam->ownSocket());
  EXPECT_EQ(pam->sd(), 1234);
  pam->enabledIs(false);
  EXPECT_FALSE(pam->enabled());
  EXPECT_EQ(pam->sd(), 1234);  // the shared socket is the bundle's to give back
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(EthDevPamTest, EnablingOpensAndConfiguresItsOwnSocket) {
  pam->netNsIs(Ovel::NamespaceName("blue"));
  pam->ethProtocolIs(0x88b5);
  pam->separateDot1QHdrIs(true);
  pam->sockPrioIs(5);
  pam->sockRcvBufIs(1 << 20);
  pam->filterProgramIs(lldpOnly());
  pam->broadcastIs(true);
  pam->allMulticastIs(true);
  Ptr<OptionRecorder> recorder = new OptionRecorder;
  recorder->notifierIs(pam);

  pam->enabledIs(true);

  EXPECT_THAT(recorder->log.take(), ElementsAre("onSd", "onEnabled"));
  ASSERT_EQ(fake.openDescriptors().size(), 1u);
  int const sd = fake.openDescriptors()[0];
  EXPECT_EQ(pam->sd(), sd);
  EXPECT_TRUE(pam->ownSocket());
  EXPECT_TRUE(pam->enabled());
  EXPECT_FALSE(pam->fileDesc());

  // The filter is on before the bind lets any frame in.
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::setsockopt, Kind::setsockopt, Kind::setsockopt,
                                   Kind::setsockopt, Kind::bind, Kind::setsockopt, Kind::setsockopt));
  auto const socketAt = fake.calls(Kind::socketAt)[0];
  EXPECT_EQ(socketAt.a, AF_PACKET);
  EXPECT_EQ(socketAt.b, SOCK_RAW | SOCK_NONBLOCK);
  EXPECT_EQ(socketAt.c, 0);
  EXPECT_EQ(socketAt.text, "blue");

  auto const options = fake.calls(Kind::setsockopt);
  EXPECT_THAT(optionsSet(),
              ElementsAre(std::to_string(SOL_PACKET) + "/" + std::to_string(PACKET_AUXDATA),
                          std::to_string(SOL_SOCKET) + "/" + std::to_string(SO_PRIORITY),
                          std::to_string(SOL_SOCKET) + "/" + std::to_string(SO_RCVBUFFORCE),
                          std::to_string(SOL_SOCKET) + "/" + std::to_string(SO_ATTACH_FILTER),
                          std::to_string(SOL_SOCKET) + "/" + std::to_string(SO_BROADCAST),
                          std::to_string(SOL_PACKET) + "/" + std::to_string(PACKET_ADD_MEMBERSHIP)));
  for (auto const & c : options) EXPECT_EQ(c.fd, sd);
  EXPECT_EQ(valueOf<int>(options[0].data), 1);
  EXPECT_EQ(valueOf<int>(options[1].data), 5);
  EXPECT_EQ(valueOf<int>(options[2].data), 1 << 20);
  auto const fprog = valueOf<sock_fprog>(options[3].data);
  EXPECT_EQ(fprog.len, 4u);
  EXPECT_EQ(fprog.filter, pam->filterProgram().filter());
  EXPECT_EQ(valueOf<int>(options[4].data), 1);
  auto const membership = valueOf<packet_mreq>(options[5].data);
  EXPECT_EQ(membership.mr_ifindex, 7);
  EXPECT_EQ(membership.mr_type, PACKET_MR_ALLMULTI);

  auto const bind = fake.calls(Kind::bind)[0];
  EXPECT_EQ(bind.fd, sd);
  ASSERT_EQ(bind.data.size(), sizeof(sockaddr_ll));
  auto const address = valueOf<sockaddr_ll>(bind.data);
  EXPECT_EQ(address.sll_family, AF_PACKET);
  EXPECT_EQ(address.sll_protocol, htons(0x88b5));
  EXPECT_EQ(address.sll_ifindex, 7);
}

TEST_F(EthDevPamTest, MinimalSocketListensToEveryProtocol) {
  pam->enabledIs(true);
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::bind));
  EXPECT_EQ(fake.calls(Kind::socketAt)[0].text, "");  // the process's own namespace
  EXPECT_EQ(valueOf<sockaddr_ll>(fake.calls(Kind::bind)[0].data).sll_protocol, htons(ETH_P_ALL));
}

TEST_F(EthDevPamTest, IfIndexLookedUpByDeviceNameWhenNotGiven) {
  pam->ifIndexIs(0);
  std::string askedFor;
  fake.behaviour().ioctl = [&](int, unsigned long request, void * argument) {
    if (request != SIOCGIFINDEX) return -1;
    auto * ifr = static_cast<ifreq *>(argument);
    askedFor = ifr->ifr_name;
    ifr->ifr_ifindex = 42;
    return 0;
  };
  pam->enabledIs(true);
  EXPECT_EQ(askedFor, "et1");
  EXPECT_EQ(pam->ifIndex(), 42u);
  EXPECT_EQ(valueOf<sockaddr_ll>(fake.calls(Kind::bind)[0].data).sll_ifindex, 42);
  pam->enabledIs(false);
  EXPECT_EQ(pam->ifIndex(), 42u);  // found once, kept

  // A later step failing puts the index back as it was.
  pam->ifIndexIs(0);
  fake.failNext(Kind::bind, EADDRNOTAVAIL);
  EXPECT_THROW(pam->enabledIs(true), Vorn::ErrnoException);
  EXPECT_EQ(pam->ifIndex(), 0u);
}

struct EnableFailure {
  char const * step;
  Kind kind;
  int error;
  std::function<void(EthDevPam &)> configure;
  bool injected = true;  // false: the failure is a real one
};

TEST_F(EthDevPamTest, FailedStepClosesWhatWasOpenedAndRaises) {
  std::vector<EnableFailure> const cases = {
      {"create socket", Kind::socketAt, EACCES, [](EthDevPam &) {}},
      {"find ifindex", Kind::ioctl, ENODEV, [](EthDevPam & p) { p.ifIndexIs(0); }},
      {"set PACKET_AUXDATA", Kind::setsockopt, EPERM, [](EthDevPam & p) { p.separateDot1QHdrIs(true); }},
      {"set PRIORITY", Kind::setsockopt, EPERM, [](EthDevPam & p) { p.sockPrioIs(6); }},
      {"set rcvbuf size", Kind::setsockopt, EPERM, [](EthDevPam & p) { p.sockRcvBufIs(4096); }},
      {"attach filter", Kind::setsockopt, EINVAL, [](EthDevPam & p) { p.filterProgramIs(acceptAll()); }},
      {"bind", Kind::bind, EADDRINUSE, [](EthDevPam &) {}},
      {"set broadcast flag", Kind::setsockopt, ENOPROTOOPT, [](EthDevPam & p) { p.broadcastIs(true); }},
      {"set allMulticast", Kind::setsockopt, ENODEV, [](EthDevPam & p) { p.allMulticastIs(true); }},
      // Fake descriptors are not open in this process: epoll refuses them.
      {"watch the socket", Kind::socketAt, EBADF, [](EthDevPam & p) { p.createVornFileDescOnEnabledIs(true); }, false},
  };
  for (EnableFailure const & c : cases) {
    SCOPED_TRACE(c.step);
    Ptr<EthDevPam> p = new EthDevPam("et1");
    p->ifIndexIs(7);
    p->perIntfSocketIs(true);
    p->createVornFileDescOnEnabledIs(false);
    c.configure(*p);
    Ptr<OptionRecorder> recorder = new OptionRecorder;
    recorder->notifierIs(p);
    fake.clearCalls();
    if (c.injected) fake.failNext(c.kind, c.error);
    TraceCapture trace({{"Ovel", Brisklog::levelRange(0, 0)}});

    std::string const expected = std::string("EthDevPam::enabled failed to ") + c.step + " on et1, errno: " +
                                 std::to_string(c.error);
    try {
      p->enabledIs(true);
      ADD_FAILURE() << "nothing raised";
    } catch (Vorn::ErrnoException const & e) {
      EXPECT_EQ(e.errorNumber(), c.error);
      EXPECT_EQ(std::string(e.what()), expected);
    }
    EXPECT_THAT(trace.texts("Ovel", 0), ElementsAre(expected));
    EXPECT_FALSE(p->enabled());
    EXPECT_EQ(p->sd(), -1);
    EXPECT_FALSE(p->ownSocket());
    EXPECT_FALSE(p->fileDesc());
    EXPECT_THAT(fake.openDescriptors(), IsEmpty());
    EXPECT_EQ(fake.count(Kind::close), c.injected && c.kind == Kind::socketAt ? 0u : 1u);
    EXPECT_THAT(recorder->log.take(), IsEmpty());  // nothing was published
  }
}

TEST_F(EthDevPamTest, DisablingAndDestroyingCloseTheSocket) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  Ptr<OptionRecorder> recorder = new OptionRecorder;
  recorder->notifierIs(pam);
  pam->enabledIs(false);
  EXPECT_THAT(recorder->log.take(), ElementsAre("onSd", "onEnabled"));
  ASSERT_EQ(fake.count(Kind::close), 1u);
  EXPECT_EQ(fake.calls(Kind::close)[0].fd, sd);
  EXPECT_THAT(fake.openDescriptors(), IsEmpty());
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_FALSE(pam->ownSocket());

  pam->enabledIs(true);
  EXPECT_EQ(fake.openDescriptors().size(), 1u);
  recorder = nullptr;
  pam = nullptr;
  EXPECT_THAT(fake.openDescriptors(), IsEmpty());
}

TEST_F(EthDevPamTest, OwnSocketGuards) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->perIntfSocketIs(false); }),
            "EthDevPam::perIntfSocket cannot change while enabled");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->sdIs(5); }),
            "EthDevPam::sd cannot change while the Pam's own socket is open");
  pam->sdIs(sd);  // the same value changes nothing
  EXPECT_TRUE(pam->perIntfSocket());
  EXPECT_EQ(pam->sd(), sd);
  pam->enabledIs(true);  // already enabled: nothing opened
  EXPECT_EQ(fake.count(Kind::socketAt), 1u);
}

TEST_F(EthDevPamTest, FilterChangeReattachesOnTheOpenSocket) {
  pam->filterProgramIs(lldpOnly());  // not enabled: stored only
  EXPECT_THAT(fake.calls(), IsEmpty());
  pam->enabledIs(true);
  int const sd = pam->sd();
  fake.clearCalls();

  pam->filterProgramIs(acceptAll());
  ASSERT_EQ(fake.count(Kind::setsockopt), 1u);
  auto const attach = fake.calls(Kind::setsockopt)[0];
  EXPECT_EQ(attach.fd, sd);
  EXPECT_EQ(attach.b, SO_ATTACH_FILTER);
  EXPECT_EQ(valueOf<sock_fprog>(attach.data).len, 1u);
  EXPECT_EQ(pam->filterProgram(), acceptAll());

  pam->filterProgramIs(acceptAll());  // equal: nothing
  EXPECT_EQ(fake.count(Kind::setsockopt), 1u);

  fake.failNext(Kind::setsockopt, EINVAL);
  try {
    pam->filterProgramIs(lldpOnly());
    ADD_FAILURE() << "nothing raised";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), EINVAL);
    EXPECT_STREQ(e.what(), "EthDevPam::filterProgram failed to attach filter on et1, errno: 22");
  }
  EXPECT_EQ(pam->filterProgram(), acceptAll());  // the kernel still runs the previous one
  EXPECT_EQ(pam->sd(), sd);

  pam->filterProgramIs(SockFilterProgram());
  EXPECT_EQ(fake.calls(Kind::setsockopt).back().b, SO_DETACH_FILTER);
  EXPECT_TRUE(pam->filterProgram().empty());
}

class EthDevPamReadTest : public EthDevPamTest {
 protected:
  void SetUp() override {
    EthDevPamTest::SetUp();
    reader = new Reader(pam);
  }
  void enable() {
    pam->enabledIs(true);
    sd = pam->sd();
  }
  void queue(std::string const & bytes, uint8_t pktType = PACKET_HOST) {
    sockaddr_storage from{};
    auto & ll = reinterpret_cast<sockaddr_ll &>(from);
    ll.sll_family = AF_PACKET;
    ll.sll_ifindex = 7;
    ll.sll_pkttype = pktType;
    fake.queueDatagram(sd, bytes, &from);
  }
  Ptr<Reader> reader;
  int sd = -1;
};

TEST_F(EthDevPamReadTest, ReadsAtMostTheLimitPerCallAndAnnouncesEachFrame) {
  pam->socketReadLimitIs(2);
  enable();
  queue("one");
  queue("two");
  queue("three");
  pam->doGetRxPkt();
  EXPECT_THAT(reader->frames, ElementsAre("one", "two"));
  EXPECT_EQ(pam->readableCount(), 2u);
  EXPECT_EQ(fake.count(Kind::recvmsg), 2u);
  EXPECT_EQ(fake.calls(Kind::recvmsg)[0].a, MSG_DONTWAIT);
  pam->doGetRxPkt();
  EXPECT_THAT(reader->frames, ElementsAre("one", "two", "three"));
  EXPECT_EQ(fake.count(Kind::recvmsg), 4u);  // the last one met EAGAIN
  EXPECT_EQ(pam->rxErrors(), 0u);
}

TEST_F(EthDevPamReadTest, FrameMetadataTruncationAndOutgoingFrames) {
  pam->maxRxPktDataIs(20);
  reader->keepOnly = false;
  enable();
  queue(std::string(100, 'a'));
  queue("sent by us", PACKET_OUTGOING);
  queue("broadcast", PACKET_BROADCAST);
  pam->doGetRxPkt();
  ASSERT_THAT(reader->frames, ElementsAre(std::string(20, 'a'), "broadcast"));
  EXPECT_EQ(reader->pkts[0]->ifIndex(), 7u);
  EXPECT_EQ(reader->pkts[1]->pktType(), PACKET_BROADCAST);
  EXPECT_EQ(pam->readableCount(), 2u);
}

TEST_F(EthDevPamReadTest, ReadErrorsAreCountedExceptEagain) {
  enable();
  TraceCapture trace({{"Ovel", Brisklog::levelRange(0, 0)}});
  pam->doGetRxPkt();  // nothing queued: EAGAIN
  EXPECT_EQ(pam->rxErrors(), 0u);
  fake.failNext(Kind::recvmsg, ENETDOWN);
  pam->doGetRxPkt();
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_THAT(trace.texts("Ovel", 0),
              ElementsAre("EthDevPam et1: recvmsg failed on sd " + std::to_string(sd) + " with errno " +
                          std::to_string(ENETDOWN) + " (" + std::strerror(ENETDOWN) + ")"));

  pam->enabledIs(false);
  queue("late");
  pam->doGetRxPkt();  // disabled: reads nothing
  EXPECT_EQ(fake.count(Kind::recvmsg), 2u);
}

TEST_F(EthDevPamReadTest, VlanTagFromAuxiliaryData) {
  pam->separateDot1QHdrIs(true);
  reader->keepOnly = false;
  enable();
  // Two frames with their tags in PACKET_AUXDATA: the first without a TPID, the second with 802.1ad.
  int served = 0;
  fake.behaviour().recvmsg = [&](int, msghdr * m, int) -> ssize_t {
    if (served == 2) {
      errno = EAGAIN;
      return -1;
    }
    tpacket_auxdata aux{};
    aux.tp_status = TP_STATUS_VLAN_VALID | (served == 1 ? TP_STATUS_VLAN_TPID_VALID : 0);
    aux.tp_vlan_tci = static_cast<uint16_t>(100 + served);
    aux.tp_vlan_tpid = 0x88a8;
    cmsghdr * c = CMSG_FIRSTHDR(m);
    c->cmsg_level = SOL_PACKET;
    c->cmsg_type = PACKET_AUXDATA;
    c->cmsg_len = CMSG_LEN(sizeof aux);
    std::memcpy(CMSG_DATA(c), &aux, sizeof aux);
    m->msg_controllen = CMSG_SPACE(sizeof aux);
    std::memcpy(m->msg_iov[0].iov_base, "tagged", 6);
    ++served;
    return 6;
  };
  pam->doGetRxPkt();
  ASSERT_EQ(reader->pkts.size(), 2u);
  EXPECT_TRUE(reader->pkts[0]->hasVlanTag());
  EXPECT_EQ(reader->pkts[0]->vlanTci(), 100);
  EXPECT_EQ(reader->pkts[0]->vlanTpid(), 0x8100);
  EXPECT_EQ(reader->pkts[1]->vlanTci(), 101);
  EXPECT_EQ(reader->pkts[1]->vlanTpid(), 0x88a8);
}

TEST_F(EthDevPamReadTest, PktReuseAllocatesNothingOnceWarm) {
  pam->pktReuseIs(true);
  pam->socketReadLimitIs(4);
  Ptr<Pkt> lent = Ovel::globalPktManager().newPkt();
  pam->savedPacketIs(0, lent);  // as the manager lends them
  enable();
  Ovel::PktManager & manager = Ovel::globalPktManager();
  auto round = [&](int n) {
    for (int i = 0; i < 4; ++i) queue("frame " + std::to_string(n) + "." + std::to_string(i));
    pam->doGetRxPkt();
  };
  round(0);
  EXPECT_EQ(pam->savedPackets(), 4u);  // slots 1..3 made on first use
  EXPECT_EQ(pam->savedPacket(0), lent);
  uint64_t const pkts = manager.pktsAllocated();
  uint64_t const buffers = manager.headDataAllocated();
  for (int n = 1; n <= 50; ++n) round(n);
  EXPECT_EQ(reader->frames.size(), 204u);
  EXPECT_EQ(reader->frames.back(), "frame 50.3");
  EXPECT_EQ(manager.pktsAllocated(), pkts);
  EXPECT_EQ(manager.headDataAllocated(), buffers);
  EXPECT_EQ(std::string(reinterpret_cast<char const *>(lent->data()), lent->dataLen()), "frame 50.0");
}

TEST(EthDevPamInBundleRead, SlowReaderKeepsEveryFrameIntactWhileSlotsAreReused) {
  FakePlatform fake;
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  pam->ifIndexIs(7);
  pam->perIntfSocketIs(true);
  pam->createVornFileDescOnEnabledIs(false);
  pam->pktReuseIs(true);
  pam->socketReadLimitIs(2);
  pam->enabledIs(true);
  for (int n = 0; n < 3; ++n) {
    fake.queueDatagram(pam->sd(), "frame " + std::to_string(2 * n));
    fake.queueDatagram(pam->sd(), "frame " + std::to_string(2 * n + 1));
    pam->doGetRxPkt();  // nobody takes them
  }
  EXPECT_EQ(pam->curRxPkts(), 6u);
  EXPECT_EQ(pam->readableCount(), 6u);
  for (int i = 0; i < 6; ++i) {
    Ptr<Pkt> pkt = pam->rxPkt();
    EXPECT_EQ(std::string(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen()), "frame " + std::to_string(i));
  }
}

TEST(EthDevPamInBundleRead, BulkReadTakesTheBatchInOneCall) {
  FakePlatform fake;
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  pam->ifIndexIs(7);
  pam->perIntfSocketIs(true);
  pam->createVornFileDescOnEnabledIs(false);
  pam->pktReuseIs(true);
  pam->enableBulkPamReadIs(true);
  pam->socketReadLimitIs(8);
  pam->enabledIs(true);
  for (int i = 0; i < 5; ++i) fake.queueDatagram(pam->sd(), "b" + std::to_string(i));
  pam->doGetRxPkt();
  EXPECT_EQ(fake.count(Kind::recvmmsg), 1u);
  EXPECT_EQ(fake.count(Kind::recvmsg), 0u);
  EXPECT_EQ(pam->readableCount(), 5u);
  std::vector<std::string> got;
  while (Ptr<Pkt> pkt = pam->rxPkt()) got.emplace_back(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen());
  EXPECT_THAT(got, ElementsAre("b0", "b1", "b2", "b3", "b4"));

  fake.failNext(Kind::recvmmsg, ENOBUFS);
  pam->doGetRxPkt();
  EXPECT_EQ(pam->rxErrors(), 1u);

  pam->pktReuseIs(false);  // bulk reading needs reusable packets: back to single reads
  fake.queueDatagram(pam->sd(), "single");
  pam->doGetRxPkt();
  EXPECT_EQ(fake.count(Kind::recvmmsg), 2u);
  EXPECT_EQ(pam->curRxPkts(), 1u);
  EXPECT_GE(fake.count(Kind::recvmsg), 1u);
}

TEST(EthDevPamInBundleRead, ReaderClosingTheSocketInTheMiddleOfABatchEndsTheRead) {
  FakePlatform fake;
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  pam->ifIndexIs(7);
  pam->perIntfSocketIs(true);
  pam->createVornFileDescOnEnabledIs(false);
  pam->pktReuseIs(true);
  pam->enableBulkPamReadIs(true);
  pam->enabledIs(true);
  for (int i = 0; i < 3; ++i) fake.queueDatagram(pam->sd(), "b" + std::to_string(i));
  Ptr<Reader> reader = new Reader(pam);
  reader->onFrame = [&] { pam->enabledIs(false); };
  pam->doGetRxPkt();
  EXPECT_THAT(reader->frames, ElementsAre("b0"));
  EXPECT_FALSE(pam->enabled());
  EXPECT_THAT(fake.openDescriptors(), IsEmpty());
  EXPECT_EQ(pam->curRxPkts(), 0u);  // b1 and b2 were read but not delivered to a closed Pam
}

class EthDevPamTxTest : public EthDevPamTest {
 protected:
  void SetUp() override {
    EthDevPamTest::SetUp();
    pam->perIntfSocketIs(false);
    pam->sdIs(Ovel::platform().socket(AF_PACKET, SOCK_RAW, 0));  // a bundle's shared socket
    fake.behaviour().sendto = [this](int, void const *, size_t length, int, sockaddr const * to, socklen_t toLength) {
      std::memcpy(&sentTo, to, std::min<size_t>(toLength, sizeof sentTo));
      return static_cast<ssize_t>(length);
    };
  }
  void TearDown() override { Ovel::platform().close(pam->sd()); }
  sockaddr_ll sentTo{};
};

TEST_F(EthDevPamTxTest, FrameLeavesThroughSdAddressedToTheInterface) {
  std::string const frame = frameBytes(0x88b5, std::string(46, 'p'));
  EXPECT_TRUE(pam->txPkt(pktOf(frame)));
  ASSERT_EQ(fake.count(Kind::sendto), 1u);
  EXPECT_EQ(fake.calls(Kind::sendto)[0].fd, pam->sd());
  EXPECT_EQ(fake.calls(Kind::sendto)[0].data, frame);
  EXPECT_EQ(sentTo.sll_family, AF_PACKET);
  EXPECT_EQ(sentTo.sll_ifindex, 7);
  EXPECT_EQ(sentTo.sll_protocol, htons(0x88b5));
  EXPECT_EQ(sentTo.sll_halen, ETH_ALEN);
  EXPECT_EQ(std::string(reinterpret_cast<char const *>(sentTo.sll_addr), 6), frame.substr(0, 6));
  EXPECT_EQ(pam->txErrors(), 0u);
}

TEST_F(EthDevPamTxTest, SeparateVlanTagGoesBackIntoTheFrame) {
  Ptr<Pkt> pkt = pktOf(frameBytes(0x0800, "payload"));
  pkt->newSeparateVlanTag(0x2064, 0x8100);
  EXPECT_TRUE(pam->txPkt(pkt));
  std::string const expected =
      std::string("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01\x81\x00\x20\x64\x08\x00", 18) + "payload";
  EXPECT_EQ(fake.calls(Kind::sendto)[0].data, expected);
  EXPECT_EQ(sentTo.sll_protocol, htons(0x8100));
}

TEST_F(EthDevPamTxTest, RefusedFramesAreCounted) {
  Ptr<Pkt> pkt = pktOf(frameBytes(0x88b5, "x"));
  fake.failNext(Kind::sendto, ENETDOWN);
  EXPECT_FALSE(pam->txPkt(pkt));
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->lastTxErrno(), ENETDOWN);

  pam->ifIndexIs(0);
  EXPECT_FALSE(pam->txPkt(pkt));
  EXPECT_EQ(pam->lastTxErrno(), ENXIO);
  pam->ifIndexIs(7);
  int const sd = pam->sd();
  pam->sdIs(-1);
  EXPECT_FALSE(pam->txPkt(pkt));
  EXPECT_EQ(pam->lastTxErrno(), ENOTCONN);
  EXPECT_EQ(pam->txErrors(), 3u);
  EXPECT_EQ(fake.count(Kind::sendto), 1u);  // only the first reached the kernel
  pam->sdIs(sd);
  EXPECT_TRUE(pam->txPkt(pkt));
}

// The own socket watched on the real event loop. The "kernel" is one end of a datagram socket pair,
// which the fake hands out as the packet socket; reads and closes of it go to the real calls.
class EthDevPamLoopTest : public testing::Test {
 protected:
  void SetUp() override {
    descriptorsBefore = IntfsmTest::openDescriptorCount();
    watchesBefore = loop.watches();
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0);
    packetEnd = fds[0];
    peer = fds[1];
    fake.behaviour().socketAt = [this](int, int, int, char const *) { return packetEnd; };
    pam->ifIndexIs(7);
    pam->perIntfSocketIs(true);
    reader = new Reader(pam);
  }
  void TearDown() override {
    reader = nullptr;
    pam = nullptr;
    close(peer);
    EXPECT_EQ(loop.watches(), watchesBefore);
    EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptorsBefore);
  }
  void send(std::string const & bytes) { ASSERT_EQ(write(peer, bytes.data(), bytes.size()), ssize_t(bytes.size())); }

  Vorn::ActivityManager & loop = Vorn::activityManager();
  FakePlatform fake;
  Ptr<EthDevPam> pam = new EthDevPam("et1");
  Ptr<Reader> reader;
  int packetEnd = -1;
  int peer = -1;
  int descriptorsBefore = 0;
  uint32_t watchesBefore = 0;
};

TEST_F(EthDevPamLoopTest, ReadableEventsDeliverFramesToTheReader) {
  pam->socketReadLimitIs(2);
  pam->enabledIs(true);
  ASSERT_TRUE(pam->fileDesc());
  EXPECT_EQ(pam->fileDesc()->descriptor(), packetEnd);
  EXPECT_EQ(loop.watches(), watchesBefore + 1);
  send("one");
  send("two");
  send("three");
  loop.runOnce(1.0);
  EXPECT_THAT(reader->frames, ElementsAre("one", "two"));  // the read limit per event
  loop.runOnce(1.0);
  EXPECT_THAT(reader->frames, ElementsAre("one", "two", "three"));
  send("four");
  EXPECT_TRUE(loop.runUntil([&] { return reader->frames.size() == 4; }, 2.0));
  EXPECT_EQ(pam->readableCount(), 4u);

  pam->enabledIs(false);
  EXPECT_FALSE(pam->fileDesc());
  EXPECT_EQ(pam->sd(), -1);
  EXPECT_EQ(loop.watches(), watchesBefore);
  EXPECT_EQ(fcntl(packetEnd, F_GETFD), -1);  // closed
}

TEST_F(EthDevPamLoopTest, ReaderMayDisableThePamFromItsHandler) {
  pam->enabledIs(true);
  reader->onFrame = [&] { pam->enabledIs(false); };
  send("one");
  send("two");
  loop.runOnce(1.0);
  EXPECT_THAT(reader->frames, ElementsAre("one"));
  EXPECT_FALSE(pam->enabled());
  EXPECT_EQ(pam->sd(), -1);
  loop.runOnce(0);
  EXPECT_THAT(reader->frames, ElementsAre("one"));
}

TEST_F(EthDevPamLoopTest, WritersAreToldWhenAFullSocketCanTakeFramesAgain) {
  pam->enabledIs(true);
  fake.failNext(Kind::sendto, EAGAIN);
  EXPECT_FALSE(pam->txPkt(pktOf(frameBytes(0x88b5, "x"))));
  EXPECT_TRUE(pam->fileDesc()->writableWanted());
  EXPECT_TRUE(loop.runUntil([&] { return pam->writableCount() == 1; }, 2.0));
  EXPECT_FALSE(pam->fileDesc()->writableWanted());  // asked once, so an idle loop does not spin
  pam->enabledIs(false);
}

}  // namespace
