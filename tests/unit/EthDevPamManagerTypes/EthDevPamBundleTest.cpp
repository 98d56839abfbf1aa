// The bundle's socket set-up, sizing and reference counting, and the single-frame receive path, with
// the kernel replaced by the fake platform. Real sockets and the bulk path are in the kernel test.
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"

#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/epoll.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

using namespace Interface;
using IntfsmTest::FakePlatform;
using Kind = IntfsmTest::FakePlatform::Kind;
using Vorn::Ptr;

namespace {

constexpr char statsFile[] = "/proc/net/packet_rlimit_stats";
constexpr char optFile[] = "/proc/sys/net/core/packet_rlimit_opt";
constexpr int kernelRcvBuf = 212992;  // what the fake's SO_RCVBUF reads before anything is set

struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    while (auto pkt = pam->rxPkt()) frames.emplace_back(pkt->data(), pkt->data() + pkt->dataLen());
  }
  Ovel::Pam * pam;  // outlives the reader
  std::vector<std::vector<uint8_t>> frames;
};

class EthDevPamBundleTest : public IntfsmTest::ModuleTest {
 protected:
  EthDevPamBundleTest() : ModuleTest("EthDevPamManagerTypes") {}

  int fakeSocket() { return fake.behaviour().socketAt(0, 0, 0, nullptr); }
  std::vector<std::string> options() const {  // "level/option=value" of every int setsockopt
    std::vector<std::string> out;
    for (auto const & c : fake.calls(Kind::setsockopt)) {
      int v = 0;
      std::memcpy(&v, c.data.data(), std::min(sizeof v, c.data.size()));
      out.push_back(std::to_string(c.a) + "/" + std::to_string(c.b) + "=" + std::to_string(v));
    }
    return out;
  }
  static std::string opt(int level, int option, long value) {
    return std::to_string(level) + "/" + std::to_string(option) + "=" + std::to_string(value);
  }
  // The Pam of interface "Cpu" (device "cpu" on ifindex 7, without status), enabled on `sd`, published.
  Ptr<Ovel::EthDevPamInBundle> cpuPam(int sd) {
    devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7});
    Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("cpu");
    pam->ifIndexIs(7);
    pam->sdIs(sd);
    pam->enabledIs(true);
    pams->intfPamIs(Ovel::IntfId("Cpu"), pam);
    return pam;
  }
  // The events the loop's epoll set watches on `fd` (from /proc/self/fdinfo), error and hang-up
  // (always watched) aside; -1 when not watched.
  long watchedEvents(int fd) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(loop().epollDescriptor()));
    for (std::string word; in >> word;) {
      int target = -1;
      std::string label;
      long mask = -1;
      if (word == "tfd:" && in >> target >> label >> std::hex >> mask >> std::dec && target == fd) return mask & ~long(EPOLLERR | EPOLLHUP);
    }
    return -1;
  }
  // Queues `frame` from `ifIndex` on `sd`.
  void queue(int sd, std::string const & frame, int ifIndex = 7) {
    sockaddr_storage from{};
    reinterpret_cast<sockaddr_ll &>(from).sll_ifindex = ifIndex;
    fake.queueDatagram(sd, frame, &from);
  }
  // Queues the frames and reads as a readable event of `sd` does.
  void receive(int sd, std::vector<std::string> const & frames) {
    for (auto const & f : frames) queue(sd, f);
    bundle->currActiveSdIs(sd);
    bundle->doGetRxPkt();
  }

  Ptr<PamDesiredIntfDir> desired = pamDesiredIntfDirFactory("desired");
  Ptr<DeviceIntfStatusDir> devices = deviceIntfStatusDirFactory("devices");
  Ptr<EthDevPamCollection> pams = ethDevPamCollectionFactory("pams");
  Ptr<EthDevPamBundle> bundle = new EthDevPamBundle(desired, devices, pams);
};

// Filter and buffer before the bind, broadcast after it, the ring before them all. Each step failing is
// in the fault table.
TEST_F(EthDevPamBundleTest, SetUpStepsComeInOrder) {
  bundle->ethProtocolIs(0x88b5);
  bundle->separateDot1QHdrIs(true);
  bundle->sockPrioIs(3);
  bundle->broadcastIs(true);
  bundle->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
  fake.fileIs(statsFile);
  fake.realSocketsIs(true);
  for (bool ring : {false, true}) {
    bundle->rxRingIs(ring);
    fake.clearCalls();
    int const sd = bundle->doGetSd("et1");
    std::vector<std::string> steps;
    for (auto const & c : fake.calls()) {
      if (c.kind == Kind::setsockopt || c.kind == Kind::bind) steps.push_back(std::to_string(c.a) + "/" + std::to_string(c.b));
      if (c.kind == Kind::mmap) steps.push_back("mmap " + std::to_string(c.a));
      if (c.kind == Kind::setsockopt && c.b == PACKET_RX_RING) {  // 64 blocks of 64 KiB, 40 slots of 1600 bytes each
        auto const & r = *reinterpret_cast<tpacket_req const *>(c.data.data());
        EXPECT_EQ(std::vector<unsigned>({r.tp_block_size, r.tp_block_nr, r.tp_frame_size, r.tp_frame_nr}),
                  std::vector<unsigned>({65536, 64, 1600, 2560}));
      }
    }
    std::vector<std::string> const ringSteps = {"263/10", "263/5", "mmap 4194304"};
    std::vector<std::string> expected = {"263/8", "1/35", "1/12", "1/33", "263/19", "1/26", "0/0", "1/6"};
    if (ring) expected.insert(expected.begin() + 3, ringSteps.begin(), ringSteps.end());
    EXPECT_EQ(steps, expected);
    bundle->doUnrefSd(sd);
  }
}

// A program is tried on a scratch socket of the bundle's namespace, plain and guarded, and the scratch
// socket is closed on every way out; a refusal on a live socket leaves it open, an empty program detaches.
TEST_F(EthDevPamBundleTest, FiltersAreTriedOnAScratchSocketAndARefusalNeverClosesALiveOne) {
  bundle->netNsIs(Ovel::NamespaceName("blue"));
  Ovel::SockFilterProgram const program{{BPF_RET | BPF_K, 0, 0, 0xffff}};
  auto const setsockopt = fake.behaviour().setsockopt;
  for (int failAt : {0, 1, 2, 3}) {  // the socket, the plain program, the guarded one, nothing
    SCOPED_TRACE(failAt);
    fake.clearCalls();
    int attaches = 0;
    fake.behaviour().setsockopt = [&](int fd, int l, int o, void const * v, socklen_t n) {
      if (o == SO_ATTACH_FILTER && ++attaches == failAt) return errno = EINVAL, -1;
      return setsockopt(fd, l, o, v, n);
    };
    if (failAt == 0) fake.failNext(Kind::socketAt, EMFILE);
    int thrown = 0;
    try {
      bundle->filterProgramTry(program);
    } catch (Vorn::ErrnoException const & e) {
      thrown = e.errorNumber();
    }
    EXPECT_EQ(thrown, failAt == 0 ? EMFILE : failAt < 3 ? EINVAL : 0);
    EXPECT_EQ(fake.calls(Kind::socketAt)[0].text, "blue");
    EXPECT_EQ(fake.count(Kind::setsockopt), failAt == 0 ? 0u : failAt == 1 ? 1u : 2u);
    EXPECT_EQ(fake.count(Kind::bind), 0u);
    EXPECT_THAT(fake.openDescriptors(), testing::IsEmpty());
  }
  fake.clearCalls();
  bundle->filterProgramTry({});  // detaching cannot be refused: nothing to try
  EXPECT_EQ(fake.count(Kind::socketAt), 0u);

  int const sd = fakeSocket();
  fake.behaviour().setsockopt = setsockopt;
  fake.failNext(Kind::setsockopt, ENOENT);  // nothing attached: done
  attachOrDetachFilter(sd, true, nullptr, 0);
  EXPECT_EQ(fake.calls(Kind::setsockopt).back().b, SO_DETACH_FILTER);
  fake.failNext(Kind::setsockopt, EBADF);
  EXPECT_THROW(attachOrDetachFilter(sd, false, nullptr, 0), Vorn::ErrnoException);
  EXPECT_TRUE(trace.contains("Failed to detach filter, sd: " + std::to_string(sd) + " errno: 9")) << trace.dump();
  fake.failNext(Kind::setsockopt, EINVAL);
  EXPECT_THROW(attachOrDetachFilter(sd, true, program.filter(), program.len()), Vorn::ErrnoException);
  EXPECT_THAT(fake.openDescriptors(), testing::ElementsAre(sd));  // still open, its old program in force
}

TEST_F(EthDevPamBundleTest, ReceiveBufferIsSizedForTheInterfacesSharingTheSocket) {
  int const sd = fakeSocket();
  bundle->sdIs(sd);
  struct Row {
    char const * what;
    std::function<void()> setUp;
    std::vector<std::string> options;  // what reaches the socket
    uint32_t total, per;
    std::string trace;
  };
  std::vector<Row> const rows = {
      {"4 interfaces, the kernel's size each, no option file: option 19", [&] { bundle->sdRefIs(4); fake.fileIs(statsFile); },
       {opt(SOL_SOCKET, SO_RCVBUFFORCE, 4 * kernelRcvBuf), opt(SOL_PACKET, 19, kernelRcvBuf)}, 4 * kernelRcvBuf, kernelRcvBuf,
       "configureRlimitIntfSize: could not open file /proc/sys/net/core/packet_rlimit_opt, using PACKET_RLIMIT_INTF_SIZE=19"},
      {"the same total touches nothing", [] {}, {}, 4 * kernelRcvBuf, kernelRcvBuf,
       "Bundle: same totalSockBuf: 851968 perIntf: 212992 sockRcvBuf 851968"},
      {"capped", [&] { bundle->sharedSockBufMaxIs(800001); }, {opt(SOL_SOCKET, SO_RCVBUFFORCE, 800001), opt(SOL_PACKET, 19, 200000)},
       800001, 200000, "EthDevPamBundle::set RLIMIT_INTF_SIZE to :200000 numIntfs: 4"},
      {"the kernel's option number", [&] { bundle->sdRefIs(5); bundle->sharedSockBufMaxIs(1 << 30); fake.fileIs(optFile, "23\n"); },
       {opt(SOL_SOCKET, SO_RCVBUFFORCE, 1000000), opt(SOL_PACKET, 23, 200000)}, 1000000, 200000,
       "configureRlimitIntfSize: using PACKET_RLIMIT_INTF_SIZE=23"},
      {"no per-interface limit in this kernel", [&] { bundle->sdRefIs(6); fake.fileDel(statsFile); },
       {opt(SOL_SOCKET, SO_RCVBUFFORCE, 1200000)}, 1200000, 200000,
       "configureRlimitIntfSize: did not find file /proc/net/packet_rlimit_stats, errno: 2"},
      {"without the limit the share is the total", [&] { bundle->perIntfRlimitIs(false); },
       {opt(SOL_SOCKET, SO_RCVBUFFORCE, 200000)}, 200000, 200000, ""},
      {"a socket per interface: nothing", [&] { bundle->perIntfSocketIs(true); bundle->sdRefIs(9); }, {}, 200000, 200000, ""},
  };
  for (Row const & row : rows) {
    SCOPED_TRACE(row.what);
    row.setUp();
    fake.clearCalls();
    trace.clear();
    bundle->doSetRcvBuf(sd);
    EXPECT_EQ(options(), row.options);
    EXPECT_EQ(bundle->sockRcvBuf(), row.total);
    EXPECT_EQ(bundle->perIntfSockRcvBuf(), row.per);
    if (!row.trace.empty()) {
      EXPECT_TRUE(trace.contains(row.trace)) << trace.dump();
    }
  }

  fake.fileIs(statsFile);
  bundle->perIntfSocketIs(false);
  bundle->perIntfRlimitIs(true);
  for (char const * content : {"0", "abc", ""}) {
    int const other = fakeSocket();
    bundle->sdIs(other);
    bundle->sockRcvBufIs(0);
    fake.fileIs(optFile, content);
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::Exception>([&] { bundle->doSetRcvBuf(other); }),
              "/proc/sys/net/core/packet_rlimit_opt has invalid content");
    EXPECT_THAT(fake.openDescriptors(), testing::Not(testing::Contains(other)));
    EXPECT_EQ(bundle->sd(), -1);
  }
}

TEST_F(EthDevPamBundleTest, ProtocolTableByDeviceKind) {
  struct Row {
    uint16_t p;
    bool ma, dut, fabric;
    uint16_t q;
  };
  for (Row const & r : std::vector<Row>{
           {0x88b5, false, false, false, 0x88b5}, {0x88b5, false, false, true, 0x002a}, {0x88b5, true, false, true, 0x0003},
           {0x88b5, false, true, true, 0x0003},   {0x0806, false, false, true, 0x0806}, {0x86dd, false, true, true, 0x86dd},
           {0x002d, false, false, true, 0x002d},  {0x002d, false, true, false, 0x8130}, {0x002e, false, true, false, 0x8134},
           {0x0031, false, true, false, 0x8131},  {0x0036, false, true, false, 0x8133}, {0x0037, false, true, true, 0x0037},
           {0x0039, false, false, true, 0x0039},  {0x0039, true, false, false, 0x0003}, {0x0039, false, true, false, 0x0003},
           {0x8847, false, true, true, 0x8847},   {0x888e, true, true, true, 0x888e},   {0x1040, false, false, true, 0x1040}}) {
    EXPECT_EQ(EthDevPamBundle::socketProtocolFor(r.p, r.ma, r.dut, r.fabric), r.q)
        << std::hex << r.p << " ma " << r.ma << " dut " << r.dut << " fabric " << r.fabric;
  }
}

TEST(EthDevPamBundleNamespaceDut, DecidedOnceFromSwiVersion) {
  std::string const style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: nothing decided yet
  for (bool hardware : {false, true}) {
    EXPECT_EXIT(
        {
          IntfsmTest::FakePlatform fake;
          IntfsmTest::TraceCapture trace("EthDevPamManagerTypes");
          if (hardware) fake.fileIs("/etc/swi-version");
          bool const dut = EthDevPamBundle::isNamespaceDut();
          hardware ? fake.fileDel("/etc/swi-version") : fake.fileIs("/etc/swi-version");
          std::exit((dut != hardware) + 2 * (EthDevPamBundle::isNamespaceDut() == dut) + 4 * (fake.count(Kind::lstat) == 1) +
                    8 * trace.contains(hardware ? "isNamespaceDut: on hardware " : "isNamespaceDut: no /etc/swi-version. on namespace DUT "));
        },
        testing::ExitedWithCode(15), "");
  }
  GTEST_FLAG_SET(death_test_style, style);
}

TEST_F(EthDevPamBundleTest, SocketsAreCountedPerInterfaceAndUnderflowIsAProgramError) {
  int const sd = fakeSocket(), tap = fakeSocket();
  bundle->sdIs(sd);
  bundle->sdTapIs(tap);
  bundle->ethProtocolIs(0x002a);  // the fabric pseudo-protocol: software devices go to the tap socket
  fake.behaviour().ioctl = [](int, unsigned long request, void * argument) {
    auto * ifr = static_cast<ifreq *>(argument);
    if (request != SIOCETHTOOL || std::strcmp(ifr->ifr_name, "va0") != 0) return errno = EOPNOTSUPP, -1;
    std::strcpy(reinterpret_cast<ethtool_drvinfo *>(ifr->ifr_data)->driver, "veth");
    return 0;
  };
  EXPECT_EQ(bundle->doGetSd("va0"), tap);
  EXPECT_EQ(bundle->doGetSd("et1"), sd);
  EXPECT_EQ(bundle->doGetSd("et2"), sd);
  EXPECT_EQ(std::vector<int>({bundle->sdRef(), bundle->sdTapRef()}), std::vector<int>({2, 1}));
  auto kernelCounts = [](int fd, unsigned packets, unsigned drops) {  // what the fake's kernel reports next
    tpacket_stats const stats{packets, drops};
    Platform::calls().setsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, sizeof stats);
  };
  kernelCounts(sd, 10, 3);
  kernelCounts(tap, 10, 2);
  EXPECT_EQ(bundle->kernelDrops(), 5u);  // both sockets
  EXPECT_EQ(bundle->kernelPackets(), 20u);
  bundle->doUnrefSd(tap);
  EXPECT_DEATH(bundle->doUnrefSd(tap), "EthDevPamManagerTypes: assertion \"sdTapRef\\(\\) >= 0\"");
  EXPECT_DEATH(bundle->doUnrefSd(4321), "assertion \"sdTap\\(\\) == sock\"");
  EXPECT_DEATH(bundle->doSetRcvBuf(4321), "assertion \"sock == sdTap\\(\\)\"");
  bundle->doGetSd("va0");
  bundle->doUnrefSd(sd);
  bundle->doUnrefSd(sd);
  EXPECT_DEATH(bundle->doUnrefSd(sd), "assertion \"sdRef\\(\\) >= 0\"");
  EXPECT_EQ(std::vector<long>({bundle->sd(), bundle->sdTap(), bundle->sdRef(), bundle->sdTapRef()}),
            std::vector<long>({sd, tap, 0, 1}));  // open while any interface is left on either
  bundle->sockRcvBufIs(1000);
  kernelCounts(sd, 7, 1);
  kernelCounts(tap, 4, 0);
  bundle->doUnrefSd(tap);  // the last one: both close, the next socket is sized afresh
  EXPECT_THAT(fake.openDescriptors(), testing::IsEmpty());
  // Their counters were read as they closed.
  EXPECT_EQ(std::pair(bundle->kernelPackets(), bundle->kernelDrops()), std::pair(uint64_t(31), uint64_t(6)));
  EXPECT_EQ(std::vector<long>({bundle->sd(), bundle->sdTap(), bundle->sockRcvBuf()}), std::vector<long>({-1, -1, 0}));
  bundle->sockRcvBufIs(1000);
  bundle->doSocketClose();  // nothing open: nothing changes
  EXPECT_EQ(bundle->sockRcvBuf(), 1000u);
  // Settings that could not work are refused at the setter, and the value in force stays.
  struct Range {
    std::function<void()> set;
    std::string text;
  };
  for (Range const & r : std::vector<Range>{
           {[&] { bundle->sockPrioIs(16); }, "EthDevPamBundle::sockPrio < 0 or > 15 not allowed"},
           {[&] { bundle->bulkReadQuotaIs(0); }, "EthDevPamBundle::bulkReadQuota < 1 or > 128 not allowed"},
           {[&] { bundle->bulkReadQuotaIs(129); }, "EthDevPamBundle::bulkReadQuota < 1 or > 128 not allowed"},
           {[&] { bundle->rxRingBlockSizeIs(6000); }, "EthDevPamBundle::rxRingBlockSize < 4096 or not a multiple of 4096 not allowed"},
           {[&] { bundle->rxRingBlockSizeIs(0); }, "EthDevPamBundle::rxRingBlockSize < 4096 or not a multiple of 4096 not allowed"},
           {[&] { bundle->rxRingBlockCountIs(0); }, "EthDevPamBundle::rxRingBlockCount < 1 not allowed"},
           {[&] { bundle->rxRingFrameSizeIs(100); }, "EthDevPamBundle::rxRingFrameSize not 0 and < 128 or not a multiple of 16 not allowed"},
           {[&] { bundle->rxRingFrameSizeIs(1601); }, "EthDevPamBundle::rxRingFrameSize not 0 and < 128 or not a multiple of 16 not allowed"},
           {[&] { bundle->rxModerationBatchIs(129); }, "EthDevPamBundle::rxModerationBatch < 1 or > 128 not allowed"},
           {[&] { bundle->rxModerationIntervalUsIs(0); }, "EthDevPamBundle::rxModerationIntervalUs < 1 or > 1000000 not allowed"},
           {[&] { bundle->maxRxPktDataIs(0); }, "EthDevPamBase::maxRxPktData < 1 or > 262144 not allowed"}}) {
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>(r.set), r.text);
  }
  EXPECT_EQ(std::vector<long>({bundle->sockPrio(), bundle->bulkReadQuota(), bundle->rxRingBlockSize(), bundle->rxRingBlockCount(),
                               bundle->rxRingFrameSize(), bundle->maxRxPktData(), bundle->rxModerationBatch(),
                               bundle->rxModerationIntervalUs()}),
            std::vector<long>({0, 128, 65536, 64, 0, 1518, 16, 100}));
}

TEST_F(EthDevPamBundleTest, SingleFrameReadFindsThePamByIfIndexAndCountsWhatGoesNowhere) {
  int const sd = fakeSocket();
  bundle->enabledIs(true);
  bundle->currActiveSdIs(sd);
  devices->intfStatusByIfIndexIs(8, {nullptr, "bad name", 8});
  devices->intfStatusByIfIndexIs(10, {intfStatusFactory(Ovel::IntfId("Ethernet10")), "et10", 10});
  Ptr<Ovel::EthDevPamInBundle> pam = cpuPam(sd);
  Ptr<Reader> reader = new Reader(pam);
  struct Row {
    int ifIndex;  // a frame from ifIndex (read failures are in the fault table)
    std::vector<uint32_t> counts;  // frames delivered, noPam, notReady, rxErrors
    std::string trace;
  };
  std::vector<Row> const rows = {
      {7, {1, 0, 0, 0}, "Pam found for ifindex: 7"},
      {8, {1, 1, 0, 0}, "Unable to convert device name bad name to intfId."},
      {10, {1, 1, 1, 0}, "Pam not ready for intfId: Ethernet10"},
  };
  for (Row const & row : rows) {
    SCOPED_TRACE(row.trace);
    trace.clear();
    queue(sd, std::string(60, char(row.ifIndex)), row.ifIndex);
    bundle->doGetRxPkt();
    EXPECT_EQ(std::vector<uint32_t>({uint32_t(reader->frames.size()), bundle->noPamDropCount(),
                                     bundle->pamNotReadyDropCount(), bundle->rxErrors()}),
              row.counts);
    EXPECT_TRUE(trace.contains(row.trace)) << trace.dump();
  }
  EXPECT_EQ(reader->frames[0], std::vector<uint8_t>(60, 7));
  // One readable event reads what is there, up to bulkReadQuota frames.
  bundle->bulkReadQuotaIs(2);
  receive(sd, {std::string(60, 'a'), std::string(60, 'b'), std::string(60, 'c')});
  EXPECT_EQ(std::vector<size_t>({reader->frames.size(), fake.queuedDatagrams(sd)}), std::vector<size_t>({3, 1}));
  bundle->doGetRxPkt();
  EXPECT_EQ(reader->frames.back(), std::vector<uint8_t>(60, 'c'));
  // A frame its reader did not take in place (a reader on an activity, a slow one) gets no other on
  // top of it: the next waits in the socket.
  reader->notifierIs(nullptr);
  receive(sd, {std::string(60, 'd'), std::string(60, 'e')});
  EXPECT_EQ(std::vector<size_t>({pam->rxPkts(), fake.queuedDatagrams(sd), pam->queueDropCount()}),
            std::vector<size_t>({1, 1, 0}));
  reader->notifierIs(pam);
  bundle->doGetRxPkt();
  EXPECT_EQ(reader->frames.back(), std::vector<uint8_t>(60, 'e'));
  EXPECT_EQ(reader->frames.end()[-2], std::vector<uint8_t>(60, 'd'));
  bundle->enabledIs(false);
  fake.queueDatagram(sd, "x");
  bundle->doGetRxPkt();
  EXPECT_EQ(fake.queuedDatagrams(sd), 1u);  // disabled: nothing read
}

// Frames of one ifindex after another take a remembered way to their Pam: every change of either
// directory, and of the Pam's state, must still decide where the next frame goes.
TEST_F(EthDevPamBundleTest, FramesFollowEveryChangeOfTheWayToTheirPam) {
  Brisklog::levelsIs("EthDevPamManagerTypes", Brisklog::levelRange(0, 8));  // per-frame traces off
  int const sd = fakeSocket();
  Ovel::IntfId const cpu("Cpu");
  Ptr<Ovel::EthDevPamInBundle> a = new Ovel::EthDevPamInBundle("a"), b = new Ovel::EthDevPamInBundle("b");
  for (auto const & p : {a, b}) {
    p->ifIndexIs(7);
    p->sdIs(sd);
    p->enabledIs(true);
  }
  Ptr<Reader> readers[] = {new Reader(a), new Reader(b)};
  struct Row {
    char const * what;
    std::function<void()> change;
    std::vector<uint32_t> counts;  // frames at a, at b, noPam, notReady
  };
  std::vector<Row> const rows = {
      {"first frame", [] {}, {1, 0, 0, 0}},
      {"the same way again", [] {}, {2, 0, 0, 0}},
      {"another Pam for the interface", [&] { pams->intfPamIs(cpu, b); }, {2, 1, 0, 0}},
      {"the ifindex names another interface", [&] { devices->intfStatusByIfIndexIs(7, {nullptr, "et5", 7}); }, {2, 1, 0, 1}},
      {"and back", [&] { devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7}); }, {2, 2, 0, 1}},
      {"the Pam disabled", [&] { b->enabledIs(false); }, {2, 2, 0, 2}},
      {"enabled", [&] { b->enabledIs(true); }, {2, 3, 0, 2}},
      {"the Pam withdrawn", [&] { pams->intfPamDel(cpu); }, {2, 3, 0, 3}},
      {"the ifindex gone", [&] { pams->intfPamIs(cpu, a); devices->intfStatusByIfIndexDel(7); }, {2, 3, 1, 3}},
      {"back", [&] { devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7}); }, {3, 3, 1, 3}},
  };
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk ? "bulk" : "single");
    bundle = new EthDevPamBundle(desired, devices, pams);
    bundle->pktReuseIs(true);
    bundle->enableBulkPamReadIs(bulk);
    bundle->enabledIs(true);
    bundle->currActiveSdIs(sd);
    devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7});
    pams->intfPamIs(cpu, a);
    for (auto & r : readers) r->frames.clear();
    for (Row const & row : rows) {
      SCOPED_TRACE(row.what);
      row.change();
      receive(sd, {std::string(60, 'f')});
      EXPECT_EQ(std::vector<uint32_t>({uint32_t(readers[0]->frames.size()), uint32_t(readers[1]->frames.size()),
                                       bundle->noPamDropCount(), bundle->pamNotReadyDropCount()}),
                row.counts);
    }
  }
}

TEST_F(EthDevPamBundleTest, ANullPamDeletesAndHoldersKeepOnePamPerDevice) {
  pams->intfPamIs(Ovel::IntfId("Ethernet1"), new Ovel::Pam("p"));
  pams->intfPamIs(Ovel::IntfId("Ethernet1"), nullptr);
  EXPECT_EQ(pams->intfPams(), 0u);

  auto holder = ethDevPamInBundleHolderFactory(Ovel::IntfId("Ethernet1"));
  auto first = holder->pamIs("et1");
  EXPECT_EQ(holder->pamIs("et1"), first);
  auto second = holder->pamIs("et1_1");
  EXPECT_NE(second, first);
  EXPECT_FALSE(first->parent());
  EXPECT_EQ(second->parent().ptr(), holder.ptr());
  auto plain = ethDevPamHolderFactory(Ovel::IntfId("Ethernet2"));
  auto pam = plain->pamIs("et2");
  plain->pamDel();
  EXPECT_FALSE(pam->parent());
  EXPECT_FALSE(plain->pam());

}

// A larger maxRxPktData after the packets were made gives every reused packet a buffer of that size,
// and a frame that its Pam's full queue refuses still tells its reader (store, then count).
TEST_F(EthDevPamBundleTest, ReusedPacketsGrowWithMaxRxPktDataAndARefusedFrameStillTellsTheReader) {
  int const sd = fakeSocket();
  Ptr<Ovel::EthDevPamInBundle> pam = cpuPam(sd);
  Ptr<Reader> reader = new Reader(pam);
  for (bool bulk : {false, true}) {
    SCOPED_TRACE(bulk ? "bulk" : "single");
    bundle = new EthDevPamBundle(desired, devices, pams);
    bundle->pktReuseIs(true);
    bundle->enableBulkPamReadIs(bulk);
    bundle->enabledIs(true);
    receive(sd, {std::string(60, 'a')});
    bundle->enabledIs(false);
    bundle->maxRxPktDataIs(9000);
    bundle->enabledIs(true);
    receive(sd, {std::string(9000, 'b')});
    ASSERT_EQ(reader->frames.size(), 2u);
    EXPECT_EQ(reader->frames.back(), std::vector<uint8_t>(9000, 'b'));
    reader->frames.clear();
  }
  bundle = new EthDevPamBundle(desired, devices, pams);
  bundle->enabledIs(true);
  reader->notifierIs(nullptr);
  pam->maxRxPktsIs(1);
  uint32_t const told = pam->readableCount();
  receive(sd, {"first"});
  receive(sd, {"refused: the queue is full"});
  EXPECT_EQ(std::vector<uint32_t>({pam->readableCount() - told, pam->queueDropCount(), pam->rxPkts()}),
            std::vector<uint32_t>({2, 1, 1}));
}

// A reader that leaves its frames unread is not called again and again: the loop goes idle, and the
// reader is served again when it takes a frame on its own, or with its next frame.
TEST_F(EthDevPamBundleTest, AReaderThatLeavesItsFramesIsServedWhenItReadsOrOnItsNextFrameNeverInABusyLoop) {
  int const sd = fakeSocket();
  Ptr<Ovel::EthDevPamInBundle> pam = cpuPam(sd);
  struct Lazy : Ovel::Pam::NotifieeConst {
    void onReadableCount() override {
      ++calls;
      for (unsigned n = 0; n < take && pam->rxPkt(); ++n) ++taken;
    }
    Ovel::Pam * pam = nullptr;
    unsigned take = 0, calls = 0, taken = 0;
  };
  Ptr<Lazy> reader = new Lazy;
  reader->pam = pam.ptr();
  reader->notifierIs(pam);
  bundle->pktReuseIs(true);
  bundle->enableBulkPamReadIs(true);
  bundle->enabledIs(true);
  auto activity = loop().activityIs("edpBundleActivity", 99);
  Ptr<EthDevPamBundleActivitySm> sm = new EthDevPamBundleActivitySm(activity, nullptr);
  sm->ethDevPamBundleIs(bundle);
  receive(sd, std::vector<std::string>(7, std::string(60, 'a')));
  EXPECT_LT(runUntilIdle(), 5u);  // idle: no pass re-arms the activity
  EXPECT_EQ(std::vector<uint32_t>({reader->calls, bundle->schedPktDelivery(), pam->curRxPkts()}),
            std::vector<uint32_t>({1, 0, 7}));
  receive(sd, {std::string(60, 'b')});  // its next frame: called again, with all eight
  EXPECT_EQ(std::vector<uint32_t>({reader->calls, pam->curRxPkts()}), std::vector<uint32_t>({2, 8}));
  reader->take = 1;
  ASSERT_TRUE(pam->rxPkt());  // it reads on its own: the rest is delivered on the activity, once
  ++reader->taken;
  EXPECT_LT(runUntilIdle(), 5u);
  EXPECT_EQ(std::vector<uint32_t>({reader->taken, pam->curRxPkts(), bundle->schedPktDelivery()}),
            std::vector<uint32_t>({8, 0, 1}));
  EXPECT_TRUE(bundle->actPamCollection()->empty());
  sm = nullptr;
}

// Moderation, step by step on the loop: readable events that bring a batch in two intervals running turn
// readiness off and read on the clock; frames wait for the timer meanwhile; a timer pass that finds
// less than half a batch per interval turns readiness on again. Every frame arrives once and in order.
TEST_F(EthDevPamBundleTest, BatchesPerIntervalSwitchToTimedReadsAndHalfOfOneBackToReadiness) {
  fake.realSocketsIs(true);  // the loop sees the socket readable while frames are queued
  bundle->pktReuseIs(true);
  bundle->enableBulkPamReadIs(true);
  bundle->rxModerationBatchIs(4);
  bundle->rxModerationIntervalUsIs(100);
  bundle->rxModerationIs(true);
  bundle->enabledIs(true);
  int const sd = bundle->doGetSd("et1");
  Ptr<Reader> reader = new Reader(cpuPam(sd));
  std::vector<std::vector<uint8_t>> sent;
  struct Step {
    char const * what;
    unsigned frames;
    double advance;  // 0: passes until idle, the test time standing still
    bool moderated;
    uint64_t entries;
    size_t delivered;
  };
  for (Step const & s : std::vector<Step>{{"a few: read on readiness", 2, 0, false, 0, 2},
                                          {"more in the same interval: one busy interval is a burst", 2, 0, false, 0, 4},
                                          {"a batch in the next interval too: timed reads", 4, 100e-6, true, 1, 8},
                                          {"readiness is off: they wait for the timer", 5, 0, true, 1, 8},
                                          {"the timer reads a batch: timed reads go on", 0, 100e-6, true, 1, 13},
                                          {"the timer finds half a batch: timed reads go on", 2, 100e-6, true, 1, 15},
                                          {"a late timer finds a batch over three intervals: readiness again", 5, 300e-6, false, 1, 20},
                                          {"read on readiness at once", 3, 0, false, 1, 23},
                                          {"an interval later: counted afresh", 3, 100e-6, false, 1, 26},
                                          {"a busy interval", 9, 0, false, 1, 35},
                                          {"a busy one long after: no storm yet", 4, 250e-6, false, 1, 39},
                                          {"and the next one: timed reads", 4, 100e-6, true, 2, 43}}) {
    SCOPED_TRACE(s.what);
    for (unsigned n = 0; n < s.frames; ++n) {
      sent.emplace_back(60, uint8_t('a' + sent.size()));
      queue(sd, std::string(sent.back().begin(), sent.back().end()));
    }
    if (s.advance > 0) {
      advanceAndRun(s.advance);
    } else {
      runUntilIdle();
    }
    // Timed reads leave the socket out of the loop's epoll set: a watch on any arrival event would
    // wake the loop per frame, and any entry at all is called by the kernel per frame.
    EXPECT_EQ(std::vector<long>({bundle->rxModerated(sd), watchedEvents(sd), long(bundle->rxModerationEntries()),
                                 long(reader->frames.size())}),
              std::vector<long>({s.moderated, s.moderated ? -1L : long(EPOLLIN | EPOLLPRI), long(s.entries), long(s.delivered)}));
  }
  EXPECT_EQ(reader->frames, sent);
  bundle->rxModerationIs(false);  // off while timed: readiness at once
  EXPECT_EQ(std::vector<long>({bundle->rxModerated(sd), watchedEvents(sd)}), std::vector<long>({false, EPOLLIN | EPOLLPRI}));
  bundle->enabledIs(false);
  advanceAndRun(1e-3);  // a firing after the socket went finds nothing to read
  EXPECT_THAT(fake.openDescriptors(), testing::IsEmpty());
}

}  // namespace
