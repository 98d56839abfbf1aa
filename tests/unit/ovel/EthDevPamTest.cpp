// EthDevPam with the kernel replaced: what enabling opens and configures, what a failed step closes,
// and frames read and sent on its own socket. The fake hands out real sockets, so the Pam's socket is
// watched on the test's loop and a queued frame is read through the Pam's own reactor, as in an agent.
#include "intfsm/foundation/ovel/EthDevPam.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/Packets.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::bytesOf;
using IntfsmTest::frameBytes;
using IntfsmTest::pktOf;
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

// What the Pam publishes about its socket, and the frames it delivers: one per readable
// notification, as agents' readers take them.
struct Reader : EthDevPam::NotifieeConst {
  explicit Reader(Ptr<EthDevPam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onEnabled() override { published.add("onEnabled"); }
  void onSd() override { published.add("onSd"); }
  void onReadableCount() override {
    Ptr<Pkt> pkt = pam->rxPkt();
    if (!pkt) return;
    frames.push_back(bytesOf(pkt));
    if (keep) pkts.push_back(pkt);
    if (onFrame) onFrame();
  }
  IntfsmTest::NotificationLog published;
  std::vector<std::string> frames;
  bool keep = false;  // by default the packet goes at once: the steady state
  std::vector<Ptr<Pkt>> pkts;
  std::function<void()> onFrame;
  EthDevPam * pam;  // outlives the reader in every test
};

SockFilterProgram const acceptAll{{BPF_RET | BPF_K, 0, 0, 0xffff}};
SockFilterProgram const lldpOnly{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                                 {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0x88cc},
                                 {BPF_RET | BPF_K, 0, 0, 0xffff},
                                 {BPF_RET | BPF_K, 0, 0, 0}};

class EthDevPamTest : public IntfsmTest::ModuleTest {
 protected:
  EthDevPamTest() : ModuleTest("Ovel") { fake.realSocketsIs(true); }

  // A Pam with its own socket on ifindex 7.
  template <class P = EthDevPam>
  Ptr<P> ownSocketPam() {
    Ptr<P> p = new P("et1");
    p->ifIndexIs(7);
    p->perIntfSocketIs(true);
    return p;
  }
  // A frame that the kernel has for the Pam's socket, from ifindex 7.
  void arrive(std::string const & bytes, uint8_t pktType = PACKET_HOST, Ptr<EthDevPam> const & to = nullptr) {
    sockaddr_storage from{};
    reinterpret_cast<sockaddr_ll &>(from) = sockaddr_ll{AF_PACKET, 0, 7, 0, pktType, 0, {}};
    fake.queueDatagram((to ? to : pam)->sd(), bytes, &from);
  }
  std::vector<Kind> kinds() const {
    std::vector<Kind> out;
    for (auto const & c : fake.calls()) out.push_back(c.kind);
    return out;
  }
  // The bind call's address as "family protocol ifindex", the protocol in host order.
  std::string boundTo() const {
    auto const a = fake.calls(Kind::bind).at(0).dataAs<sockaddr_ll>();
    return std::to_string(a.sll_family) + " " + std::to_string(ntohs(a.sll_protocol)) + " " + std::to_string(a.sll_ifindex);
  }

  Ptr<EthDevPam> pam = ownSocketPam();
  Ptr<Reader> reader = new Reader(pam);
};

TEST_F(EthDevPamTest, OutOfRangeSettingsAreRefusedAndKeepTheValue) {
  pam->sockPrioIs(15);  // the highest allowed
  std::pair<std::function<void()>, char const *> const cases[] = {
      {[&] { pam->sockPrioIs(16); }, "EthDevPam::sockPrio < 0 or > 15 not allowed"},
      {[&] { pam->socketReadLimitIs(0); }, "EthDevPam::socketReadLimit < 1 or > 1024 not allowed"},
      {[&] { pam->socketReadLimitIs(1025); }, "EthDevPam::socketReadLimit < 1 or > 1024 not allowed"},
      {[&] { pam->sdIs(-2); }, "EthDevPam::sd < -1 not allowed"},
      {[&] { pam->maxRxPktDataIs(262145); }, "EthDevPamBase::maxRxPktData < 1 or > 262144 not allowed"},
      {[&] { pam->maxRxPktDataIs(0); }, "EthDevPamBase::maxRxPktData < 1 or > 262144 not allowed"},
  };
  for (auto const & [set, text] : cases) EXPECT_EQ(thrownText<Vorn::RangeException>(set), text);
  EXPECT_EQ(std::tuple(pam->sockPrio(), pam->socketReadLimit(), pam->sd(), pam->maxRxPktData()), std::tuple(15, 15, -1, 1518u));
}

// Every option reaches the socket, and the filter is on before the bind lets any frame in.
TEST_F(EthDevPamTest, EnablingOpensConfiguresBindsAndWatchesItsOwnSocket) {
  pam->netNsIs(Ovel::NamespaceName("blue"));
  pam->ethProtocolIs(0x88b5);
  pam->separateDot1QHdrIs(true);
  pam->sockPrioIs(5);
  pam->sockRcvBufIs(1 << 20);
  pam->filterProgramIs(lldpOnly);
  pam->broadcastIs(true);
  pam->allMulticastIs(true);
  EXPECT_THAT(fake.calls(), IsEmpty());  // options alone reach nothing

  pam->enabledIs(true);

  EXPECT_THAT(reader->published.take(), ElementsAre("onSd", "onEnabled"));
  ASSERT_EQ(fake.openDescriptors(), std::vector<int>{pam->sd()});
  EXPECT_EQ(std::tuple(pam->ownSocket(), loop().watches()), std::tuple(true, 1u));
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::setsockopt, Kind::setsockopt, Kind::setsockopt, Kind::setsockopt,
                                   Kind::setsockopt, Kind::bind, Kind::setsockopt, Kind::setsockopt));
  auto const socketAt = fake.calls(Kind::socketAt)[0];
  EXPECT_EQ(std::tuple(socketAt.a, socketAt.b, socketAt.c, socketAt.text), std::tuple(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, 0, "blue"));
  std::vector<std::string> options;  // "level/option value": an int, or the filter's length
  for (auto const & c : fake.calls(Kind::setsockopt)) {
    EXPECT_EQ(c.fd, pam->sd());
    int const value = c.b == SO_ATTACH_FILTER ? c.dataAs<sock_fprog>().len : c.dataAs<int>();
    options.push_back(std::to_string(c.a) + "/" + std::to_string(c.b) + " " + std::to_string(value));
  }
  auto const option = [](int level, int name, int value) {
    return std::to_string(level) + "/" + std::to_string(name) + " " + std::to_string(value);
  };
  auto const setsockopt = fake.calls(Kind::setsockopt);  // the filter's and the membership's contents too
  EXPECT_THAT(options, ElementsAre(option(SOL_PACKET, PACKET_AUXDATA, 1), option(SOL_SOCKET, SO_TIMESTAMPNS, 1),
                                   option(SOL_SOCKET, SO_PRIORITY, 5),
                                   option(SOL_SOCKET, SO_RCVBUFFORCE, 1 << 20), option(SOL_SOCKET, SO_ATTACH_FILTER, 4),
                                   option(SOL_SOCKET, SO_BROADCAST, 1), option(SOL_PACKET, PACKET_ADD_MEMBERSHIP, 7)));
  EXPECT_EQ(std::tuple(setsockopt[4].dataAs<sock_fprog>().filter, setsockopt[6].dataAs<packet_mreq>().mr_type, boundTo()),
            std::tuple(pam->filterProgram().filter(), PACKET_MR_ALLMULTI, std::to_string(AF_PACKET) + " 34997 7"));  // 0x88b5
}

// Without a protocol or an ifindex: every protocol, on the ifindex looked up by name (kept once found).
TEST_F(EthDevPamTest, AMinimalSocketListensToEveryProtocolOnTheIfIndexLookedUpByName) {
  pam->ifIndexIs(0);
  std::string askedFor;
  fake.behaviour().ioctl = [&](int, unsigned long request, void * argument) {
    auto * ifr = static_cast<ifreq *>(argument);
    askedFor = ifr->ifr_name;
    ifr->ifr_ifindex = 42;
    return request == SIOCGIFINDEX ? 0 : -1;
  };
  pam->enabledIs(true);
  EXPECT_THAT(kinds(), ElementsAre(Kind::socketAt, Kind::ioctl, Kind::setsockopt, Kind::bind));
  // In the process's own namespace (""), bound to every protocol on the ifindex found.
  EXPECT_EQ(std::tuple(fake.calls(Kind::socketAt)[0].text, askedFor, boundTo()),
            std::tuple("", "et1", std::to_string(AF_PACKET) + " " + std::to_string(ETH_P_ALL) + " 42"));
  pam->enabledIs(false);
  EXPECT_EQ(pam->ifIndex(), 42u);
}

// Failing system calls are in the fault table; a descriptor the loop cannot watch fails the same way.
TEST_F(EthDevPamTest, ASocketTheLoopCannotWatchIsClosedTracedAndRaised) {
  fake.realSocketsIs(false);  // fake descriptors are not open in this process: epoll refuses them
  std::string const expected = "EthDevPam::enabled failed to watch the socket on et1, errno: " + std::to_string(EBADF);
  EXPECT_EQ(thrownText<Vorn::ErrnoException>([&] { pam->enabledIs(true); }), expected);
  EXPECT_THAT(trace.texts("Ovel", 0), ElementsAre(expected));
  EXPECT_EQ(std::tuple(pam->enabled(), pam->sd(), loop().watches(), fake.openDescriptors().size()), std::tuple(false, -1, 0u, 0u));
  EXPECT_THAT(reader->published.take(), IsEmpty());
}

TEST_F(EthDevPamTest, DisablingOrDestroyingClosesTheSocketWhichCannotBeSwappedWhileOpen) {
  pam->enabledIs(true);
  int const sd = pam->sd();
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->perIntfSocketIs(false); }),
            "EthDevPam::perIntfSocket cannot change while enabled");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->sdIs(sd + 1); }),
            "EthDevPam::sd cannot change while the Pam's own socket is open");
  pam->enabledIs(true);  // already enabled: nothing opened
  reader->published.take();
  pam->enabledIs(false);
  EXPECT_THAT(reader->published.take(), ElementsAre("onSd", "onEnabled"));
  EXPECT_EQ(std::tuple(fake.calls(Kind::close).at(0).fd, fake.count(Kind::socketAt), fake.openDescriptors().size(),
                       loop().watches(), pam->sd(), pam->ownSocket()),
            std::tuple(sd, 1u, 0u, 0u, -1, false));
  pam->enabledIs(true);
  reader = nullptr;
  pam = nullptr;
  EXPECT_EQ(std::tuple(fake.openDescriptors().size(), loop().watches()), std::tuple(0u, 0u));
}

// On the open socket a new filter is attached at once, and an empty one detaches (a refused one is in
// the fault table).
TEST_F(EthDevPamTest, AFilterChangeIsAttachedToTheOpenSocket) {
  pam->enabledIs(true);
  fake.clearCalls();
  pam->filterProgramIs(acceptAll);
  pam->filterProgramIs(acceptAll);  // equal: nothing
  ASSERT_EQ(fake.count(Kind::setsockopt), 1u);
  EXPECT_EQ(std::tuple(fake.calls(Kind::setsockopt)[0].b, fake.calls(Kind::setsockopt)[0].dataAs<sock_fprog>().len),
            std::tuple(SO_ATTACH_FILTER, 1u));
  pam->filterProgramIs(SockFilterProgram());
  EXPECT_EQ(fake.calls(Kind::setsockopt).back().b, SO_DETACH_FILTER);
}

// Up to socketReadLimit frames per readable event, truncated to maxRxPktData; the Pam's own
// transmissions are skipped.
TEST_F(EthDevPamTest, ReadsFramesOnReadableEvents) {
  pam->maxRxPktDataIs(20);
  pam->socketReadLimitIs(2);
  reader->keep = true;
  pam->enabledIs(true);
  arrive(std::string(100, 'a'));
  arrive("sent by us", PACKET_OUTGOING);
  arrive("broadcast", PACKET_BROADCAST);
  runOnce();
  EXPECT_THAT(reader->frames, ElementsAre(std::string(20, 'a')));
  runOnce();  // the socket is still readable
  ASSERT_THAT(reader->frames, ElementsAre(std::string(20, 'a'), "broadcast"));
  EXPECT_EQ(std::tuple(reader->pkts[0]->ifIndex(), reader->pkts[1]->pktType()), std::tuple(7u, PACKET_BROADCAST));
  EXPECT_FALSE(runOnce());
  EXPECT_EQ(std::tuple(pam->readableCount(), pam->rxErrors()), std::tuple(2u, 0u));  // the reads ended on EAGAIN
}

// With separateDot1QHdr the tag comes in PACKET_AUXDATA beside the frame; without a TPID it is 802.1Q.
// Control bytes the kernel never writes are not read past: a record too short, or a message claiming
// more than the control bytes hold (it and what follows are ignored).
TEST_F(EthDevPamTest, AVlanTagComesFromTheAuxiliaryDataAndNothingIsReadPastIt) {
  auto message = [](int level, int type, tpacket_auxdata const & aux, size_t dataBytes, size_t claimed = 0) {
    std::string bytes(CMSG_SPACE(dataBytes), '\0');
    cmsghdr const header{claimed ? claimed : CMSG_LEN(dataBytes), level, type};
    std::memcpy(bytes.data(), &header, sizeof header);
    std::memcpy(bytes.data() + CMSG_LEN(0), &aux, std::min(dataBytes, sizeof aux));
    return bytes;
  };
  tpacket_auxdata tagged{};
  tagged.tp_status = TP_STATUS_VLAN_VALID, tagged.tp_vlan_tci = 0x2064, tagged.tp_vlan_tpid = 0x88a8;
  tpacket_auxdata withTpid = tagged;
  withTpid.tp_status |= TP_STATUS_VLAN_TPID_VALID;
  size_t const whole = sizeof(tpacket_auxdata);
  struct Case {
    char const * what;
    std::string control;
    uint16_t tci, tpid;  // 0, 0: no tag
  };
  std::vector<Case> const cases = {
      {"a tag, 802.1Q", message(SOL_PACKET, PACKET_AUXDATA, tagged, whole), 0x2064, 0x8100},
      {"a tag with its TPID, after another message",
       message(SOL_SOCKET, SO_TIMESTAMP, tagged, 0) + message(SOL_PACKET, PACKET_AUXDATA, withTpid, whole), 0x2064,
       0x88a8},
      {"no tag", message(SOL_PACKET, PACKET_AUXDATA, tpacket_auxdata{}, whole), 0, 0},
      {"a record cut to its status, then a whole one",
       message(SOL_PACKET, PACKET_AUXDATA, tagged, 4) + message(SOL_PACKET, PACKET_AUXDATA, withTpid, whole), 0x2064,
       0x88a8},
      {"a message claiming more than the control bytes", message(SOL_PACKET, PACKET_AUXDATA, tagged, whole, 4096), 0, 0},
  };
  pam->separateDot1QHdrIs(true);
  reader->keep = true;
  pam->enabledIs(true);
  std::string control;
  fake.behaviour().recvmsg = [&control, fakeRead = fake.behaviour().recvmsg](int fd, msghdr * m, int flags) {
    size_t const room = m->msg_controllen;
    ssize_t const n = fakeRead(fd, m, flags);
    EXPECT_LE(control.size(), room);
    std::memcpy(m->msg_control, control.data(), control.size());
    m->msg_controllen = control.size();
    return n;
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.what);
    control = c.control;
    reader->pkts.clear();
    arrive("frame");
    runOnce();
    ASSERT_EQ(reader->pkts.size(), 1u);
    Pkt const & p = *reader->pkts[0];
    EXPECT_EQ(std::tuple(p.hasVlanTag(), p.vlanTci(), p.vlanTpid()), std::tuple(c.tci != 0, c.tci, c.tpid));
  }
}

TEST_F(EthDevPamTest, PktReuseAllocatesNothingOnceWarm) {
  pam->pktReuseIs(true);
  pam->socketReadLimitIs(4);
  Ptr<Pkt> lent = Ovel::globalPktManager().newPkt();
  pam->savedPacketIs(0, lent);  // as the manager lends them
  pam->enabledIs(true);
  Ovel::PktManager & manager = Ovel::globalPktManager();
  auto round = [&](int n) {
    for (int i = 0; i < 4; ++i) arrive("frame " + std::to_string(n) + "." + std::to_string(i));
    runOnce();
  };
  round(0);
  EXPECT_EQ(pam->savedPackets(), 4u);  // slots 1..3 made on first use
  uint64_t const pkts = manager.pktsAllocated(), buffers = manager.headDataAllocated();
  for (int n = 1; n <= 50; ++n) round(n);
  EXPECT_EQ(std::tuple(reader->frames.size(), reader->frames.back(), bytesOf(lent)), std::tuple(204u, "frame 50.3", "frame 50.0"));
  EXPECT_EQ(std::tuple(manager.pktsAllocated(), manager.headDataAllocated()), std::tuple(pkts, buffers));
}

// A bundle's Pam with its own socket reads singly or, with bulk reading and pktReuse, in batches; either
// way every frame stays intact for a reader that has not taken it yet, while the read slots are reused.
TEST_F(EthDevPamTest, SingleAndBulkReadsKeepEveryFrameIntactForASlowReader) {
  Ptr<EthDevPamInBundle> b = ownSocketPam<EthDevPamInBundle>();
  b->pktReuseIs(true);
  b->socketReadLimitIs(2);
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk);
    b->enableBulkPamReadIs(bulk);
    b->enabledIs(true);
    fake.clearCalls();
    for (int n = 0; n < 6; ++n) {
      arrive("frame " + std::to_string(n), PACKET_HOST, b);
      if (n % 2) runOnce();  // nobody takes them
    }
    EXPECT_EQ(std::tuple(fake.count(Kind::recvmsg), fake.count(Kind::recvmmsg), b->curRxPkts()),
              std::tuple(bulk ? 0u : 6u, bulk ? 3u : 0u, 6u));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(bytesOf(b->rxPkt()), "frame " + std::to_string(i));
    b->enabledIs(false);
  }
  b->enabledIs(true);
  fake.clearCalls();
  fake.failNext(Kind::recvmmsg, ENOBUFS);
  arrive("lost", PACKET_HOST, b);
  runOnce();
  EXPECT_EQ(b->rxErrors(), 1u);
  b->pktReuseIs(false);  // bulk reading needs reusable packets: back to single reads
  runOnce();
  EXPECT_EQ(std::tuple(bytesOf(b->rxPkt()), fake.count(Kind::recvmmsg)), std::tuple("lost", 1u));
}

// A reader that disables the Pam while it takes a frame ends the read: nothing more is delivered to
// the closed Pam, and the closed socket is not read again.
TEST_F(EthDevPamTest, AReaderDisablingThePamInTheMiddleOfAReadEndsIt) {
  Ptr<EthDevPamInBundle> b = ownSocketPam<EthDevPamInBundle>();
  b->pktReuseIs(true);
  Ptr<Reader> r = new Reader(b);
  r->onFrame = [&] { b->enabledIs(false); };
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk);
    b->enableBulkPamReadIs(bulk);
    b->enabledIs(true);
    for (int i = 0; i < 3; ++i) arrive("b" + std::to_string(i), PACKET_HOST, b);
    r->frames.clear();
    fake.clearCalls();
    runOnce();
    EXPECT_THAT(r->frames, ElementsAre("b0"));
    EXPECT_EQ(std::tuple(fake.openDescriptors().size(), b->curRxPkts(), fake.count(Kind::recvmsg) + fake.count(Kind::recvmmsg)),
              std::tuple(0u, 0u, 1u));
  }
}

// In a bundle a Pam is usable with the bundle's socket and its ifindex, and opens and closes nothing.
// It transmits through `sd` to its ifindex, a separate VLAN tag put back inside the frame; a frame
// the kernel refuses, or that has no ifindex or socket to go to, is counted with its errno.
TEST_F(EthDevPamTest, TransmitsThroughSdToItsIfIndexAndCountsRefusals) {
  std::vector<std::string> sentTo;  // "ifindex protocol" of each frame the kernel took
  fake.behaviour().sendto = [&](int, void const *, size_t length, int, sockaddr const * to, socklen_t) {
    auto const * ll = reinterpret_cast<sockaddr_ll const *>(to);
    sentTo.push_back(std::to_string(ll->sll_ifindex) + " " + std::to_string(ntohs(ll->sll_protocol)));
    return static_cast<ssize_t>(length);
  };
  pam->perIntfSocketIs(false);
  EXPECT_FALSE(pam->usable());
  pam->sdIs(1234);  // a bundle's shared socket: enabling opens nothing, disabling leaves it to the bundle
  pam->enabledIs(true);
  EXPECT_TRUE(pam->usable());
  pam->enabledIs(false);
  EXPECT_EQ(pam->sd(), 1234);  // left open
  std::string const frame = frameBytes(0x88b5, std::string(46, 'p'));
  EXPECT_TRUE(pam->txPkt(pktOf(frame)));
  Ptr<Pkt> tagged = pktOf(frameBytes(0x0800, "payload"));
  tagged->newSeparateVlanTag(0x2064, 0x8100);
  EXPECT_TRUE(pam->txPkt(tagged));
  EXPECT_THAT(sentTo, ElementsAre("7 34997", "7 33024"));  // 0x88b5, 0x8100
  auto const sent = fake.calls(Kind::sendto);
  EXPECT_EQ(std::tuple(sent.at(0).fd, sent.at(0).data, sent.at(1).data),
            std::tuple(1234, frame, frame.substr(0, 12) + std::string("\x81\x00\x20\x64\x08\x00", 6) + "payload"));

  struct Refusal {
    std::function<void()> before;
    int error;
  };
  Refusal const refusals[] = {{[&] { fake.failNext(Kind::sendto, ENETDOWN); }, ENETDOWN},
                              {[&] { pam->ifIndexIs(0); }, ENXIO},
                              {[&] { pam->ifIndexIs(7), pam->sdIs(-1); }, ENOTCONN}};
  for (Refusal const & r : refusals) {
    r.before();
    EXPECT_FALSE(pam->txPkt(tagged));
    EXPECT_EQ(pam->lastTxErrno(), r.error);
  }
  EXPECT_EQ(pam->txErrors(), 3u);
  EXPECT_THAT(kinds(), ElementsAre(Kind::sendto, Kind::sendto, Kind::sendto));  // only the first refusal reached the kernel
}

// A full socket (EAGAIN) makes the Pam watch for writability once; when the loop sees the socket
// writable, writers are told and the watch ends, so an idle loop does not spin.
TEST_F(EthDevPamTest, WritersAreToldWhenAFullSocketCanTakeFramesAgain) {
  pam->enabledIs(true);
  fake.failNext(Kind::sendto, EAGAIN);
  EXPECT_FALSE(pam->txPkt(pktOf(frameBytes(0x88b5, "x"))));
  EXPECT_TRUE(pam->fileDesc()->writableWanted());
  runOnce();
  EXPECT_EQ(std::tuple(pam->writableCount(), pam->fileDesc()->writableWanted()), std::tuple(1u, false));
  EXPECT_FALSE(runOnce());
}

}  // namespace
