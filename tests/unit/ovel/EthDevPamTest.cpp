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

// What enabling and disabling publish.
struct Recorder : EthDevPam::NotifieeConst {
  explicit Recorder(Ptr<EthDevPam> const & p) { notifierIs(p); }
  void onEnabled() override { log.add("onEnabled"); }
  void onSd() override { log.add("onSd"); }
  void onIfIndex() override { log.add("onIfIndex"); }
  NotificationLog log;
};

std::string bytesOf(Ptr<Pkt> const & pkt) {
  return pkt ? std::string(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen()) : "(none)";
}

// Takes one frame per readable notification, as agents' readers do.
struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    Ptr<Pkt> pkt = pam->rxPkt();
    if (!pkt) return;
    frames.push_back(bytesOf(pkt));
    if (keep) pkts.push_back(pkt);
    if (onFrame) onFrame();
  }
  bool keep = false;  // by default the packet goes at once: the steady state
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

// A setsockopt call as "level/option value", with the fields that matter of a filter or a membership.
std::string optionText(FakePlatform::Call const & c) {
  std::string const head = std::to_string(c.a) + "/" + std::to_string(c.b) + " ";
  if (c.a == SOL_SOCKET && c.b == SO_ATTACH_FILTER) {
    return head + "len " + std::to_string(valueOf<sock_fprog>(c.data).len);
  }
  if (c.a == SOL_PACKET && c.b == PACKET_ADD_MEMBERSHIP) {
    auto const m = valueOf<packet_mreq>(c.data);
    return head + std::to_string(m.mr_ifindex) + " type " + std::to_string(m.mr_type);
  }
  return head + std::to_string(valueOf<int>(c.data));
}
std::string option(int level, int name, std::string const & value) {
  return std::to_string(level) + "/" + std::to_string(name) + " " + value;
}
// A bind call's address as "family protocol ifindex", the protocol in host order.
std::string boundTo(FakePlatform const & fake) {
  auto const address = valueOf<sockaddr_ll>(fake.calls(Kind::bind).at(0).data);
  return std::to_string(address.sll_family) + " " + std::to_string(ntohs(address.sll_protocol)) + " " +
         std::to_string(address.sll_ifindex);
}

// What `f` raises as "<errno> <message>".
std::string errnoRaised(std::function<void()> const & f) {
  try {
    f();
  } catch (Vorn::ErrnoException const & e) {
    return std::to_string(e.errorNumber()) + " " + e.what();
  }
  return "<nothing raised>";
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

// A Pam with its own socket on ifindex 7, not watched: fake descriptors cannot be watched by epoll.
template <class P>
Ptr<P> ownSocket(Ptr<P> p) {
  p->ifIndexIs(7);
  p->perIntfSocketIs(true);
  p->createVornFileDescOnEnabledIs(false);
  return p;
}

class EthDevPamTest : public testing::Test {
 protected:
  std::vector<Kind> kinds() const {
    std::vector<Kind> out;
    for (auto const & c : fake.calls()) out.push_back(c.kind);
    return out;
  }

  FakePlatform fake;
  Ptr<EthDevPam> pam = ownSocket<EthDevPam>(new EthDevPam("et1"));
};

TEST_F(EthDevPamTest, RangeChecksRefuseAndKeepTheValue) {
  auto refused = [](std::function<void()> const & set) { return thrownText<Vorn::RangeException>(set); };
  EXPECT_EQ(refused([&] { pam->sockPrioIs(16); }), "EthDevPam::sockPrio < 0 or > 15 not allowed");
  EXPECT_EQ(refused([&] { pam->socketReadLimitIs(0); }), "EthDevPam::socketReadLimit < 1 or > 1024 not allowed");
  EXPECT_EQ(refused([&] { pam->socketReadLimitIs(1025); }), "EthDevPam::socketReadLimit < 1 or > 1024 not allowed");
  EXPECT_EQ(refused([&] { pam->sdIs(-2); }), "EthDevPam::sd < -1 not allowed");
  EXPECT_EQ(refused([&] { pam->maxRxPktDataIs(262145); }), "EthDevPamBase::maxRxPktData > 262144 not allowed");
  EXPECT_EQ(pam->socketReadLimit(), 15);
  EXPECT_EQ(pam->maxRxPktData(), 1518u);
}

TEST_F(EthDevPamTest, InABundleEnablingOpensNothingAndUsableNeedsSdAndIfIndex) {
  pam->perIntfSocketIs(false);
  EXPECT_FALSE(pam->usable());  // no descriptor
  pam->sdIs(1234);              // the bundle's shared socket
  EXPECT_TRUE(pam->usable());
  pam->ifIndexIs(0);
  EXPECT_FALSE(pam->usable());
  pam->enabledIs(true);
  EXPECT_TRUE(pam->enabled());
  pam->enabledIs(false);
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
  EXPECT_THAT(fake.calls(), IsEmpty());  // options alone reach nothing
  Ptr<Recorder> recorder = new Recorder(pam);

  pam->enabledIs(true);

  EXPECT_THAT(recorder->log.take(), ElementsAre("onSd", "onEnabled"));
  ASSERT_EQ(fake.openDescriptors().size(), 1u);
  int const sd = fake.openDescriptors()[0];
  EXPECT_EQ(pam->sd(), sd);
  EXPECT_TRUE(pam->ownSocket());
  // The filter is on before the bind lets any frame in.
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::setsockopt, Kind::setsockopt, Kind::setsockopt,
                                   Kind::setsockopt, Kind::bind, Kind::setsockopt, Kind::setsockopt));
  auto const socketAt = fake.calls(Kind::socketAt)[0];
  EXPECT_EQ(std::vector<long>({socketAt.a, socketAt.b, socketAt.c}),
            std::vector<long>({AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, 0}));
  EXPECT_EQ(socketAt.text, "blue");

  std::vector<std::string> options;
  for (auto const & c : fake.calls(Kind::setsockopt)) {
    EXPECT_EQ(c.fd, sd);
    options.push_back(optionText(c));
  }
  EXPECT_THAT(options, ElementsAre(option(SOL_PACKET, PACKET_AUXDATA, "1"), option(SOL_SOCKET, SO_PRIORITY, "5"),
                                   option(SOL_SOCKET, SO_RCVBUFFORCE, std::to_string(1 << 20)),
                                   option(SOL_SOCKET, SO_ATTACH_FILTER, "len 4"), option(SOL_SOCKET, SO_BROADCAST, "1"),
                                   option(SOL_PACKET, PACKET_ADD_MEMBERSHIP, "7 type " +
                                                                               std::to_string(PACKET_MR_ALLMULTI))));
  EXPECT_EQ(valueOf<sock_fprog>(fake.calls(Kind::setsockopt)[3].data).filter, pam->filterProgram().filter());
  EXPECT_EQ(fake.calls(Kind::bind)[0].fd, sd);
  EXPECT_EQ(boundTo(fake), std::to_string(AF_PACKET) + " 34997 7");  // 0x88b5
}

TEST_F(EthDevPamTest, MinimalSocketListensToEveryProtocolOnTheIfIndexLookedUpByName) {
  pam->ifIndexIs(0);
  std::string askedFor;
  fake.behaviour().ioctl = [&](int, unsigned long request, void * argument) {
    auto * ifr = static_cast<ifreq *>(argument);
    askedFor = ifr->ifr_name;
    ifr->ifr_ifindex = 42;
    return request == SIOCGIFINDEX ? 0 : -1;
  };
  pam->enabledIs(true);
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::ioctl, Kind::bind));
  EXPECT_EQ(fake.calls(Kind::socketAt)[0].text, "");  // the process's own namespace
  EXPECT_EQ(askedFor, "et1");
  EXPECT_EQ(boundTo(fake), std::to_string(AF_PACKET) + " " + std::to_string(ETH_P_ALL) + " 42");
  pam->enabledIs(false);
  EXPECT_EQ(pam->ifIndex(), 42u);  // found once, kept

  // A later step failing puts the index back as it was.
  pam->ifIndexIs(0);
  fake.failNext(Kind::bind, EADDRNOTAVAIL);
  EXPECT_THAT(errnoRaised([&] { pam->enabledIs(true); }), testing::StartsWith(std::to_string(EADDRNOTAVAIL) + " "));
  EXPECT_EQ(pam->ifIndex(), 0u);
}

TEST_F(EthDevPamTest, FailedStepClosesWhatWasOpenedAndRaises) {
  struct Case {
    char const * step;
    Kind kind;
    int error;
    std::function<void(EthDevPam &)> configure;
    bool injected = true;  // false: the failure is a real one
  };
  std::vector<Case> const cases = {
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
  for (Case const & c : cases) {
    SCOPED_TRACE(c.step);
    Ptr<EthDevPam> p = ownSocket<EthDevPam>(new EthDevPam("et1"));
    c.configure(*p);
    Ptr<Recorder> recorder = new Recorder(p);
    fake.clearCalls();
    if (c.injected) fake.failNext(c.kind, c.error);
    TraceCapture trace({{"Ovel", Brisklog::levelRange(0, 0)}});

    std::string const expected = std::string("EthDevPam::enabled failed to ") + c.step + " on et1, errno: " +
                                 std::to_string(c.error);
    EXPECT_EQ(errnoRaised([&] { p->enabledIs(true); }), std::to_string(c.error) + " " + expected);
    EXPECT_THAT(trace.texts("Ovel", 0), ElementsAre(expected));
    EXPECT_FALSE(p->enabled());
    EXPECT_EQ(p->sd(), -1);
    EXPECT_FALSE(p->fileDesc());
    EXPECT_THAT(fake.openDescriptors(), IsEmpty());
    EXPECT_EQ(fake.count(Kind::close), c.injected && c.kind == Kind::socketAt ? 0u : 1u);
    EXPECT_THAT(recorder->log.take(), IsEmpty());  // nothing was published
  }
}

TEST_F(EthDevPamTest, DisablingAndDestroyingCloseTheSocketAndGuardsHoldWhileOpen) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->perIntfSocketIs(false); }),
            "EthDevPam::perIntfSocket cannot change while enabled");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->sdIs(5); }),
            "EthDevPam::sd cannot change while the Pam's own socket is open");
  pam->enabledIs(true);  // already enabled: nothing opened
  EXPECT_EQ(fake.count(Kind::socketAt), 1u);
  EXPECT_EQ(pam->sd(), sd);

  Ptr<Recorder> recorder = new Recorder(pam);
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

TEST_F(EthDevPamTest, FilterChangeReattachesOnTheOpenSocket) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  fake.clearCalls();

  pam->filterProgramIs(acceptAll());
  pam->filterProgramIs(acceptAll());  // equal: nothing
  ASSERT_EQ(fake.count(Kind::setsockopt), 1u);
  auto const attach = fake.calls(Kind::setsockopt)[0];
  EXPECT_EQ(attach.fd, sd);
  EXPECT_EQ(optionText(attach), option(SOL_SOCKET, SO_ATTACH_FILTER, "len 1"));

  fake.failNext(Kind::setsockopt, EINVAL);
  EXPECT_EQ(errnoRaised([&] { pam->filterProgramIs(lldpOnly()); }),
            "22 EthDevPam::filterProgram failed to attach filter on et1, errno: 22");
  EXPECT_EQ(pam->filterProgram(), acceptAll());  // the kernel still runs the previous one
  EXPECT_EQ(pam->sd(), sd);

  pam->filterProgramIs(SockFilterProgram());
  EXPECT_EQ(fake.calls(Kind::setsockopt).back().b, SO_DETACH_FILTER);
  EXPECT_TRUE(pam->filterProgram().empty());
}

class EthDevPamReadTest : public EthDevPamTest {
 protected:
  void enable() {
    pam->enabledIs(true);
    sd = pam->sd();
  }
  void queue(std::string const & bytes, uint8_t pktType = PACKET_HOST) {
    sockaddr_storage from{};
    reinterpret_cast<sockaddr_ll &>(from) = sockaddr_ll{AF_PACKET, 0, 7, 0, pktType, 0, {}};
    fake.queueDatagram(sd, bytes, &from);
  }
  Ptr<Reader> reader = new Reader(pam);
  int sd = -1;
};

TEST_F(EthDevPamReadTest, FramesAreTruncatedOutgoingOnesSkippedAndErrorsButEagainCounted) {
  pam->maxRxPktDataIs(20);
  reader->keep = true;
  enable();
  TraceCapture trace({{"Ovel", Brisklog::levelRange(0, 0)}});
  queue(std::string(100, 'a'));
  queue("sent by us", PACKET_OUTGOING);
  queue("broadcast", PACKET_BROADCAST);
  pam->doGetRxPkt();
  ASSERT_THAT(reader->frames, ElementsAre(std::string(20, 'a'), "broadcast"));
  EXPECT_EQ(reader->pkts[0]->ifIndex(), 7u);
  EXPECT_EQ(reader->pkts[1]->pktType(), PACKET_BROADCAST);
  EXPECT_EQ(pam->readableCount(), 2u);
  EXPECT_EQ(pam->rxErrors(), 0u);  // the read ended on EAGAIN

  pam->socketReadLimitIs(2);  // frames per readable event
  for (char const * frame : {"one", "two", "three"}) queue(frame);
  pam->doGetRxPkt();
  EXPECT_THAT(reader->frames, ElementsAre(std::string(20, 'a'), "broadcast", "one", "two"));
  fake.clearCalls();
  fake.failNext(Kind::recvmsg, ENETDOWN);
  pam->doGetRxPkt();
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_THAT(trace.texts("Ovel", 0),
              ElementsAre("EthDevPam et1: recvmsg failed on sd " + std::to_string(sd) + " with errno " +
                          std::to_string(ENETDOWN) + " (" + std::strerror(ENETDOWN) + ")"));
  pam->enabledIs(false);
  fake.clearCalls();
  pam->doGetRxPkt();  // disabled: reads nothing
  EXPECT_EQ(fake.count(Kind::recvmsg), 0u);
}

TEST_F(EthDevPamReadTest, VlanTagFromAuxiliaryData) {
  pam->separateDot1QHdrIs(true);
  reader->keep = true;
  enable();
  // Frames with their tags in PACKET_AUXDATA: the first without a TPID, the second with 802.1ad.
  int served = 0;
  fake.behaviour().recvmsg = [&](int, msghdr * m, int) -> ssize_t {
    tpacket_auxdata aux{};
    aux.tp_status = TP_STATUS_VLAN_VALID | (served == 1 ? TP_STATUS_VLAN_TPID_VALID : 0);
    aux.tp_vlan_tci = static_cast<uint16_t>(100 + served);
    aux.tp_vlan_tpid = 0x88a8;
    cmsghdr * c = CMSG_FIRSTHDR(m);
    *c = cmsghdr{CMSG_LEN(sizeof aux), SOL_PACKET, PACKET_AUXDATA};
    std::memcpy(CMSG_DATA(c), &aux, sizeof aux);
    m->msg_controllen = CMSG_SPACE(sizeof aux);
    errno = EAGAIN;
    return served++ < 2 ? 1 : -1;
  };
  pam->doGetRxPkt();
  ASSERT_EQ(reader->pkts.size(), 2u);
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
  EXPECT_EQ(bytesOf(lent), "frame 50.0");
}

class EthDevPamInBundleRead : public testing::Test {
 protected:
  EthDevPamInBundleRead() { pam->pktReuseIs(true); }
  FakePlatform fake;
  Ptr<EthDevPamInBundle> pam = ownSocket<EthDevPamInBundle>(new EthDevPamInBundle(Vorn::String("et1")));
};

TEST_F(EthDevPamInBundleRead, SingleAndBulkReadsKeepEveryFrameIntactForASlowReaderWhileSlotsAreReused) {
  pam->socketReadLimitIs(2);
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk);
    pam->enableBulkPamReadIs(bulk);
    pam->enabledIs(true);
    fake.clearCalls();
    for (int n = 0; n < 6; n += 2) {
      fake.queueDatagram(pam->sd(), "frame " + std::to_string(n));
      fake.queueDatagram(pam->sd(), "frame " + std::to_string(n + 1));
      pam->doGetRxPkt();  // nobody takes them
    }
    EXPECT_EQ(fake.count(Kind::recvmsg), bulk ? 0u : 6u);
    EXPECT_EQ(fake.count(Kind::recvmmsg), bulk ? 3u : 0u);
    EXPECT_EQ(pam->curRxPkts(), 6u);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(bytesOf(pam->rxPkt()), "frame " + std::to_string(i));
    pam->enabledIs(false);
  }
  EXPECT_EQ(pam->readableCount(), 12u);

  pam->enabledIs(true);
  fake.clearCalls();
  fake.failNext(Kind::recvmmsg, ENOBUFS);
  pam->doGetRxPkt();
  EXPECT_EQ(pam->rxErrors(), 1u);
  pam->pktReuseIs(false);  // bulk reading needs reusable packets: back to single reads
  fake.queueDatagram(pam->sd(), "single");
  pam->doGetRxPkt();
  EXPECT_EQ(fake.count(Kind::recvmmsg), 1u);
  EXPECT_EQ(bytesOf(pam->rxPkt()), "single");
}

TEST_F(EthDevPamInBundleRead, ReaderClosingTheSocketInTheMiddleOfAReadEndsIt) {
  Ptr<Reader> reader = new Reader(pam);
  reader->onFrame = [&] { pam->enabledIs(false); };
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk);
    pam->enableBulkPamReadIs(bulk);
    pam->enabledIs(true);
    for (int i = 0; i < 3; ++i) fake.queueDatagram(pam->sd(), "b" + std::to_string(i));
    reader->frames.clear();
    fake.clearCalls();
    pam->doGetRxPkt();
    EXPECT_THAT(reader->frames, ElementsAre("b0"));
    EXPECT_FALSE(pam->enabled());
    EXPECT_THAT(fake.openDescriptors(), IsEmpty());
    EXPECT_EQ(pam->curRxPkts(), 0u);  // b1 and b2, if read, are not delivered to a closed Pam
    EXPECT_EQ(fake.count(Kind::recvmsg) + fake.count(Kind::recvmmsg), 1u);  // nor is the closed socket read again
  }
}

TEST_F(EthDevPamTest, TransmitsThroughSdToTheInterfaceWithTheVlanTagBackInsideAndCountsRefusals) {
  std::vector<std::string> sentTo;  // "ifindex protocol" of each frame the kernel took
  fake.behaviour().sendto = [&](int, void const *, size_t length, int, sockaddr const * to, socklen_t) {
    auto const * ll = reinterpret_cast<sockaddr_ll const *>(to);
    sentTo.push_back(std::to_string(ll->sll_ifindex) + " " + std::to_string(ntohs(ll->sll_protocol)));
    return static_cast<ssize_t>(length);
  };
  pam->perIntfSocketIs(false);
  pam->sdIs(1234);  // a bundle's shared socket
  std::string const frame = frameBytes(0x88b5, std::string(46, 'p'));
  EXPECT_TRUE(pam->txPkt(pktOf(frame)));
  Ptr<Pkt> tagged = pktOf(frameBytes(0x0800, "payload"));
  tagged->newSeparateVlanTag(0x2064, 0x8100);
  EXPECT_TRUE(pam->txPkt(tagged));
  EXPECT_THAT(sentTo, ElementsAre("7 34997", "7 33024"));  // 0x88b5, 0x8100
  auto const sent = fake.calls(Kind::sendto);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].fd, 1234);
  EXPECT_EQ(sent[0].data, frame);
  EXPECT_EQ(sent[1].data, frame.substr(0, 12) + std::string("\x81\x00\x20\x64\x08\x00", 6) + "payload");
  EXPECT_EQ(pam->txErrors(), 0u);

  fake.failNext(Kind::sendto, ENETDOWN);
  EXPECT_FALSE(pam->txPkt(tagged));
  EXPECT_EQ(pam->lastTxErrno(), ENETDOWN);
  pam->ifIndexIs(0);
  EXPECT_FALSE(pam->txPkt(tagged));
  EXPECT_EQ(pam->lastTxErrno(), ENXIO);
  pam->ifIndexIs(7);
  pam->sdIs(-1);
  EXPECT_FALSE(pam->txPkt(tagged));
  EXPECT_EQ(pam->lastTxErrno(), ENOTCONN);
  EXPECT_EQ(pam->txErrors(), 3u);
  EXPECT_EQ(fake.count(Kind::sendto), 3u);  // of the refusals, only the first reached the kernel
}

// The own socket watched on the real event loop. The "kernel" is one end of a datagram socket pair,
// which the fake hands out as the packet socket; closes of it go to the real call.
TEST(EthDevPamLoop, WritersAreToldWhenAFullSocketCanTakeFramesAgainAndDisablingUnwatchesAndCloses) {
  Vorn::ActivityManager & loop = Vorn::activityManager();
  int const descriptorsBefore = IntfsmTest::openDescriptorCount();
  uint32_t const watchesBefore = loop.watches();
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0);
  {
    FakePlatform fake;
    fake.behaviour().socketAt = [&](int, int, int, char const *) { return fds[0]; };
    Ptr<EthDevPam> pam = new EthDevPam("et1");
    pam->ifIndexIs(7);
    pam->perIntfSocketIs(true);
    pam->enabledIs(true);
    EXPECT_EQ(loop.watches(), watchesBefore + 1);
    fake.failNext(Kind::sendto, EAGAIN);
    EXPECT_FALSE(pam->txPkt(pktOf(frameBytes(0x88b5, "x"))));
    EXPECT_TRUE(pam->fileDesc()->writableWanted());
    EXPECT_TRUE(loop.runUntil([&] { return pam->writableCount() == 1; }, 2.0));
    EXPECT_FALSE(pam->fileDesc()->writableWanted());  // asked once, so an idle loop does not spin
    pam->enabledIs(false);
    EXPECT_EQ(loop.watches(), watchesBefore);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
  }
  close(fds[1]);
  EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptorsBefore);
}

}  // namespace
