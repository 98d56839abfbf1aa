// The simple managers without a kernel: the text form of socket filters, the test-only filter entry
// point and its guard, the desired list, the receive loop (one frame per readable notification), and
// the simple packet-access manager feeding its device directory from a hand-filled kernel table.
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <net/if.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "tests/support/ModuleTest.h"

namespace {

using ::testing::ElementsAre;
using L = std::vector<size_t>;
using Ovel::IntfId;

TEST(ParseFilterTest, ReadsTheTextFormOrNothing) {
  using P = Ovel::SockFilterProgram;
  std::pair<char const *, P> const cases[] = {  // an empty program: the text is invalid (0)
      {"{ 0x28, 0, 0, 0xc }", P{{0x28, 0, 0, 0xc}}},
      {"{ 28, 0, 0, c }", P{{0x28, 0, 0, 0xc}}},  // hexadecimal without the prefix
      {"{0x15,1,2,0x88b5}", P{{0x15, 1, 2, 0x88b5}}},
      {"prog: { 0x28, 0, 0, 0xc } ;; junk, { 0x6, 0, 0, 0x40000 } trailing", P{{0x28, 0, 0, 0xc}, {0x6, 0, 0, 0x40000}}},
      {"{ 0x15, 257, 3, 0 }", P{{0x15, 1, 3, 0}}},  // jumps cut to 8 bits
      {"{ 0x28, 0, 0 }", P{}},                      // three numbers
      {"{ 0x28, 0, 0, 0xc }, { 0x6, 0, 0, 0", P{}},  // the last element is not closed
      {"{ 0x28, 0, 0, 0xc }, { 0x6, x, 0, 0 }", P{}},
      {"0x28, 0, 0, 0xc", P{}},  // no braces
      {"", P{}},
  };
  for (auto const & [text, expected] : cases) {
    int const count = Interface::parseFilter(text, nullptr);
    std::vector<sock_filter> out(size_t(std::max(count, 0)));
    EXPECT_EQ(Interface::parseFilter(text, out.data()), count) << text;
    EXPECT_EQ(P(out.data(), out.size()), expected) << text;
  }
}

class SimpleTxRxPktManagerTest : public IntfsmTest::ModuleTest {
 protected:
  SimpleTxRxPktManagerTest() : ModuleTest("SimpleTxRxPktManager") { setenv("ETHDEVPAMMANAGER_TESTING", "1", 1); }
  ~SimpleTxRxPktManagerTest() override { unsetenv("ETHDEVPAMMANAGER_TESTING"); }

  // A manager with a packet-access manager of its own.
  Vorn::Ptr<Interface::SimpleTxRxPktManager> initialized() {
    auto m = Interface::simpleTxRxPktManagerFactory(devices, nullptr);
    return m->desiredIntfDirIs("desired"), m->initializedTxRxIs(true), m;
  }

  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices = Interface::deviceIntfStatusDirFactory("devices");
};

TEST_F(SimpleTxRxPktManagerTest, ApplyFilterSetsTheProgramKeepsItOnBadTextOrARefusedProgramAndIsForTestsOnly) {
  // As the kernel: a program must end in a return.
  fake.behaviour().setsockopt = [base = fake.behaviour().setsockopt](int fd, int l, int o, void const * v, socklen_t n) {
    auto const * p = static_cast<sock_fprog const *>(v);
    return o == SO_ATTACH_FILTER && BPF_CLASS(p->filter[p->len - 1].code) != BPF_RET ? (errno = EINVAL, -1) : base(fd, l, o, v, n);
  };
  auto m = initialized();
  ASSERT_TRUE(m->ethDevPamManager() && m->pamCollection()->name() == "edpc");
  EXPECT_EQ(m->ethDevPamManager()->pamCollection(), m->pamCollection());
  m->ethDevPamManager()->handleInitialized();
  m->ethDevPamManager()->enabledIs(true);

  ASSERT_TRUE(m->applyFilter("{ 0x28, 0, 0, 0xc }, { 0x6, 0, 0, 0x40000 }"));
  Ovel::SockFilterProgram const good{{0x28, 0, 0, 0xc}, {0x6, 0, 0, 0x40000}};
  auto held = [&] {  // here, and by the manager
    return Ovel::SockFilterProgram(m->bpfFilter(), m->bpfFilterLen()) == good && m->ethDevPamManager()->filterProgram() == good;
  };
  EXPECT_TRUE(held());
  std::string tooLong;
  for (int i = 0; i <= 0xffff; ++i) tooLong += "{ 6, 0, 0, 0 }";
  for (std::string const & bad : {std::string("{ 0x6, 0, 0 }"), std::string("no program"), std::string("{ 0x6, 0, 0, 0 } {"),
                                  std::string("{ 0x28, 0, 0, 0xc }"), tooLong}) {
    EXPECT_FALSE(m->applyFilter(Vorn::String(bad))) << bad.substr(0, 40);
    EXPECT_TRUE(held()) << bad.substr(0, 40);
  }
  EXPECT_EQ(L({trace.count("Filter parsed and set"), trace.count("Filter refused, errno 22"),
               trace.count("Filter refused: SockFilterProgram::len > 65535 not allowed: 65536 instructions"),
               trace.count("Filter not parsed: not a filter program")}),
            L({1, 1, 1, 3}));
  // Outside a test environment it stops the process.
  EXPECT_DEATH(
      {
        unsetenv("ETHDEVPAMMANAGER_TESTING");
        m->applyFilter("{ 0x6, 0, 0, 0 }");
      },
      "assertion \"0 && \"This is call is only intended for testing from python\"\" failed");
}

TEST_F(SimpleTxRxPktManagerTest, AddAndDeleteAreIdempotent) {
  auto m = initialized();
  auto const & desired = m->desiredIntfDir();
  IntfId const et1("Ethernet1"), et2("Ethernet2");
  desired->intfDesiredIs(et2, false);
  // Each returns true; an entry, even false, is left alone by add.
  for (auto [add, intf, entries] : {std::tuple(false, et1, 1), {true, et1, 2}, {true, et1, 2}, {true, et2, 2},
                                    {false, et1, 1}, {false, et1, 1}}) {
    EXPECT_TRUE(add ? m->addIntfPam(intf) : m->delIntfPam(intf));
    EXPECT_EQ(L({desired->intfDesireds(), desired->intfDesired(et2)}), L({size_t(entries), 0}));
  }
  EXPECT_EQ(L({trace.count("SimpleTxRxPktManager: Adding Ethernet1 to the desired list"),
               trace.count("SimpleTxRxPktManager: Deleting Ethernet1 PAM"), trace.countContaining("Adding Ethernet2")}),
            L({1, 1, 0}));
}

// A receiver that records what the loop hands it.
class Recorder : public Interface::SimpleTxRxPktManager {
 public:
  using SimpleTxRxPktManager::SimpleTxRxPktManager;
  void handleRx(Vorn::Ptr<Ovel::Pam> const &, IntfId const & id, Vorn::Ptr<Ovel::Pkt> const & pkt) override {
    frames.push_back(id.name().stdString() + ":" + std::to_string(pkt->data()[0]));
  }
  void handleOutputPam(IntfId const & id) override { outputs.push_back(id.name().stdString()); }
  std::vector<std::string> frames;
  std::vector<std::string> outputs;
};

TEST_F(SimpleTxRxPktManagerTest, ReadsOneFramePerReadableNotification) {
  auto pams = Interface::ethDevPamCollectionFactory("pams");
  Vorn::Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("et1");
  pams->intfPamIs(IntfId("Ethernet9"), new Ovel::EthDevPamInBundle("et9"));  // there before: found at binding
  Vorn::Ptr<Recorder> r = new Recorder(devices, pams);
  pams->intfPamIs(IntfId("Ethernet1"), pam);
  EXPECT_EQ(L({r->pams(), r->outputs.size()}), L({2, 1}));

  auto write = [&](uint8_t first) {
    uint8_t bytes[60] = {first};
    Vorn::Ptr<Ovel::Pkt> pkt = Ovel::globalPktManager().newPkt();
    pkt->dataIs(bytes, sizeof bytes), pam->writeNewRxPkt(pkt);
  };
  for (uint8_t first : {1, 2, 3}) write(first);
  pam->readableCountInc(1);
  EXPECT_EQ(L({r->frames.size(), r->numRcvd(), pam->curRxPkts()}), L({1, 1, 2}));
  for (int i = 0; i < 3; ++i) pam->readableCountInc(1);  // the last finds nothing left
  EXPECT_THAT(r->frames, ElementsAre("Ethernet1:1", "Ethernet1:2", "Ethernet1:3"));
  EXPECT_EQ(L({r->numRcvd(), trace.count("void Interface::SimpleTxRxPktManager::VornPam::handleReadableCount() no pkt, pam only set")}),
            L({3, 1}));

  // A Pam withdrawn from the collection is no longer read.
  pams->intfPamDel(IntfId("Ethernet1"));
  write(9);
  pam->readableCountInc(1);
  EXPECT_EQ(L({r->pams(), r->outputs.size(), r->numRcvd()}), L({1, 2, 3}));
}

TEST_F(SimpleTxRxPktManagerTest, SimpleEthDevPamManagerFeedsItsDeviceDirectoryOnceInitialized) {
  auto all = Interface::allIntfStatusDirFactory("all");
  auto locals = Interface::allIntfStatusLocalDirFactory("locals");
  auto status = Interface::intfStatusFactory(IntfId("Ethernet1"));
  status->deviceNameIs("et1");
  all->intfStatusIs(status);
  locals->intfStatusLocalIs(Interface::intfStatusLocalFactory(IntfId("Ethernet1")));
  auto kernel = KernelNetInfo::Root::rootNew("kernel");
  kernel->interfaceIs(KernelNetInfo::Interface(7, IFF_UP | IFF_RUNNING, "et1"));
  auto kni = KernelNetInfo::Status::statusNew("kni", Ovel::NamespaceName(Ovel::DEFAULT_NS), kernel);

  auto s = Interface::simpleEthDevPamManagerFactory(all, locals, kni);
  ASSERT_TRUE(s->deviceIntfStatusDir() && s->desiredIntfDir() && s->pamCollection() && s->ethDevPamManager());
  EXPECT_TRUE(s->deviceIntfStatusDir()->parent().ptr() == s.ptr() && !s->ethDevPamManager()->enabled() &&
              s->ethDevPamManager()->deviceIntfStatusDir() == s->deviceIntfStatusDir());
  EXPECT_EQ(s->deviceIntfStatusDir()->intfStatusAndDeviceNames(), 0u);

  s->initializedIs(true);
  EXPECT_TRUE(s->intfStatusManagerRoot()->intfStatusManager(Ovel::NamespaceName(Ovel::DEFAULT_NS)) &&
              !s->intfStatusManagerRoot()->filterByNetNs());
  EXPECT_EQ(s->deviceIntfStatusDir()->intfStatusAndDeviceName(IntfId("Ethernet1")).ifIndex, 7u);
  kernel->interfaceDel(7);
  EXPECT_EQ(s->deviceIntfStatusDir()->intfStatusAndDeviceNames(), 0u);
}

}  // namespace
