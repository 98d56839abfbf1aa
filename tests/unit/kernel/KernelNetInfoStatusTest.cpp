// The rtnetlink monitor against a kernel played by the test (FakeRtnetlink): set-up order and
// failures, events, lost events and rate-limited re-dumps, dumps racing with events, disable/enable.
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "intfsm/foundation/kernel/KernelNetInfoInterfaceInfo.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/vorn/System.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/FakeRtnetlink.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

namespace {

using IntfsmTest::FakePlatform;
using IntfsmTest::FakeRtnetlink;
using Kind = IntfsmTest::FakePlatform::Kind;
using KernelNetInfo::Interface;
using KernelNetInfo::Status;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr uint32_t loFlags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
constexpr double start = 100.0;

bool isOpen(int fd) { return fd >= 0 && ::fcntl(fd, F_GETFD) >= 0; }

int intOf(std::string const & bytes) {
  int value = 0;
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
  return value;
}

class KernelNetInfoStatus : public ::testing::Test {
 protected:
  KernelNetInfoStatus() {
    kernel.linkIs(1, loFlags, "lo");
    kernel.linkIs(3, IFF_UP, "va0");
    kernel.linkIs(4, 0, "vb0");
  }
  ~KernelNetInfoStatus() override { status = nullptr; }

  // The Root as "ifIndex name flags" rows in ifindex order.
  std::vector<std::string> devices() const {
    std::map<uint32_t, std::string> rows;
    for (auto const & e : status->root()->interfaceByIfIndexIter()) {
      std::ostringstream row;
      row << e.key << " " << e.value.deviceName() << " 0x" << std::hex << e.value.flags();
      rows[e.key] = row.str();
    }
    std::vector<std::string> out;
    for (auto const & [key, row] : rows) out.push_back(row);
    return out;
  }
  void pass() { loop.runOnce(0); }
  // At time `at`, the socket reports ENOBUFS: the events since the last read are lost.
  void loseEvents(double at) {
    time.nowIs(at);
    fake.failNext(Kind::recvmsg, ENOBUFS);
    kernel.newLink(1, loFlags, "lo");  // something to read, so that the loop calls the status
    pass();
  }

  IntfsmTest::ScopedTestTime time{start};
  Vorn::ActivityManager loop;
  FakePlatform fake;
  FakeRtnetlink kernel{fake};
  Vorn::Ptr<Status> status = Status::statusNew("kni", Ovel::NamespaceName(Vorn::String("blue")), nullptr, loop);
};

TEST_F(KernelNetInfoStatus, EnableSubscribesThenDumpsAndFillsTheRootBeforeReturning) {
  status->enabledIs(true);
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "4 vb0 0x0"));
  EXPECT_EQ(std::tuple(status->synced(), status->dumps(), loop.watches(), ::fcntl(status->descriptor(), F_GETFL) & O_NONBLOCK),
            std::tuple(true, 1u, 1u, O_NONBLOCK));

  std::vector<Kind> steps;
  for (auto const & call : fake.calls()) {
    if (call.kind != Kind::recvmsg && call.kind != Kind::poll) steps.push_back(call.kind);
  }
  EXPECT_THAT(steps, ElementsAre(Kind::socketAt, Kind::setsockopt, Kind::bind, Kind::setsockopt, Kind::sendto));
  auto const socketAt = fake.calls(Kind::socketAt).at(0);
  EXPECT_EQ(std::tuple(socketAt.b, socketAt.text), std::tuple(SOCK_RAW | SOCK_CLOEXEC, "blue"));
  auto const options = fake.calls(Kind::setsockopt);
  EXPECT_EQ(std::tuple(options.at(0).b, intOf(options.at(0).data), options.at(1).b, intOf(options.at(1).data)),
            std::tuple(SO_RCVBUFFORCE, 4 << 20, NETLINK_ADD_MEMBERSHIP, RTNLGRP_LINK));
}

TEST_F(KernelNetInfoStatus, EventsFollowAddRenameFlagsMoveAndDelete) {
  status->enabledIs(true);
  IntfsmTest::TraceCapture trace{{"KernelNetInfo", 1}};
  uint64_t const before = status->events();
  kernel.newLink(5, 0, "vc0");
  pass();
  EXPECT_EQ(status->root()->interfaceByDeviceName("vc0"), Interface(5, 0, "vc0"));
  kernel.newLink(5, 0, "wan0");
  kernel.newLink(5, IFF_UP | IFF_RUNNING, "wan0");
  pass();
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "4 vb0 0x0", "5 wan0 0x41"));
  EXPECT_FALSE(status->root()->interfaceByDeviceNameHas("vc0"));

  kernel.delLink(5);
  // A bridge port leaving its bridge: RTM_DELLINK of family AF_BRIDGE; the device stays.
  kernel.send(FakeRtnetlink::linkMessage(RTM_DELLINK, 0, 0, 3, IFF_UP, "va0", AF_BRIDGE));
  // A device moved to another namespace, reported as RTM_NEWLINK with IFLA_NEW_NETNSID.
  kernel.send(FakeRtnetlink::linkMessage(RTM_NEWLINK, 0, 0, 4, 0, "vb0", AF_UNSPEC, 7));
  // A name the kernel cannot have: ignored, traced.
  kernel.send(FakeRtnetlink::linkMessage(RTM_NEWLINK, 0, 0, 9, 0, "abcdefghijklmnopq"));
  pass();  // all in one pass: read until EAGAIN
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1"));
  // The bridge port message is not an event.
  EXPECT_EQ(std::tuple(status->events() - before, status->synced(), status->dumps()), std::tuple(6u, true, 1u));
  ASSERT_EQ(trace.texts("KernelNetInfo", 0).size(), 1u) << trace.dump();
  EXPECT_THAT(trace.texts("KernelNetInfo", 0)[0],
              ::testing::StartsWith("KernelNetInfo::Status ignoring ifIndex 9 in namespace blue: PodArray::set expected "
                                    "size <= 16, instead got 17"));
}

TEST_F(KernelNetInfoStatus, LostEventsRedumpAtMostOncePerIntervalAndReconcile) {
  status->enabledIs(true);
  struct SyncedLog : Status::NotifieeConst {
    void onSynced() override { seen.push_back(notifier()->synced()); }
    std::vector<bool> seen;
  };
  Vorn::Ptr<SyncedLog> synced = new SyncedLog;
  synced->notifierIs(status);
  IntfsmTest::TraceCapture trace{{"KernelNetInfo", 1}};
  // Changes whose events the socket loses.
  kernel.linkDel(4);
  kernel.linkIs(3, IFF_UP | IFF_RUNNING, "va0");
  kernel.linkIs(6, 0, "vd0");

  loseEvents(start);
  // The previous dump started at `start`: too soon for another request.
  EXPECT_EQ(std::tuple(status->overruns(), status->synced(), status->redumpPending(), kernel.dumpRequests().size()),
            std::tuple(1u, false, true, 1u));
  EXPECT_THAT(trace.texts("KernelNetInfo", 0),
              ElementsAre("KernelNetInfo::Status lost events in namespace blue (ENOBUFS); dumping again"));

  time.nowIs(start + 0.05);
  kernel.send(std::string(80 * 1024, '\0'));  // truncated: a loss too
  pass();
  EXPECT_EQ(std::tuple(status->overruns(), kernel.dumpRequests().size()), std::tuple(2u, 1u));  // one wanted, waiting

  time.nowIs(start + Status::defaultRedumpInterval);
  pass();  // the clock starts the re-dump; the fake answers at once
  EXPECT_EQ(kernel.dumpRequests().size(), 2u);
  pass();  // the answer is read
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x41", "6 vd0 0x0"));
  EXPECT_EQ(std::tuple(status->synced(), status->redumpPending(), status->dumps()), std::tuple(true, false, 2u));
  EXPECT_THAT(synced->seen, ElementsAre(false, true));

  loseEvents(start + 10);  // long after the last dump: at once
  EXPECT_EQ(std::tuple(kernel.dumpRequests().size(), status->redumps()), std::tuple(3u, 2u));
}

// An event can arrive before a dump record built before it: the dump is reconciled first, then the
// events read during it are applied in arrival order.
TEST_F(KernelNetInfoStatus, EventsThatComeWithADumpAreNotUndoneByIt) {
  status->enabledIs(true);
  kernel.autoAnswerIs(false);
  kernel.linksPerDatagramIs(1);
  loseEvents(start + 1);
  ASSERT_EQ(kernel.heldRequests(), 1u);
  kernel.dumpBegin();   // reads lo, va0, vb0
  kernel.dumpSend(2);   // lo, va0
  kernel.delLink(3);    // va0 goes after the dump passed it
  kernel.newLink(4, IFF_UP | IFF_RUNNING, "wan0");  // vb0 renamed and up before its older record
  kernel.newLink(7, IFF_UP, "ve0");  // a device the dump will not list
  kernel.dumpSend(1);   // vb0, as it was
  kernel.dumpDone();
  pass();
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "4 wan0 0x41", "7 ve0 0x1"));
  EXPECT_EQ(std::tuple(status->synced(), status->dumpInProgress()), std::tuple(true, false));
}

// The kernel reports a loss ahead of what it queued before the loss: those messages are older than
// the re-dump and are not held for it (the lost event, putting va0 back, would never undo them).
TEST_F(KernelNetInfoStatus, MessagesQueuedBeforeALossAreAppliedBeforeTheRedump) {
  status->enabledIs(true);
  kernel.newLink(3, IFF_UP | IFF_RUNNING, "va0");
  kernel.linkIs(3, IFF_UP, "va0");  // its event lost
  loseEvents(start + 1);
  pass();
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "4 vb0 0x0"));
  EXPECT_EQ(std::tuple(status->synced(), status->redumps()), std::tuple(true, 1u));
}

// Deleted and made again under the same name while the events were lost: the re-dump removes the old
// ifindex before it adds the new one, so a watcher of the name sees both.
TEST_F(KernelNetInfoStatus, DeviceRemadeUnderItsNameWhileEventsWereLostIsARemovalThenAnAddition) {
  status->enabledIs(true);
  struct Watcher : KernelNetInfo::Root::NotifieeConst {
    IntfsmTest::NotificationLog log;
    void onInterfaceByDeviceName(Vorn::String const & name) override {
      log.add("onInterfaceByDeviceName", name, notifier()->interfaceByDeviceName(name));
    }
  } watcher;
  watcher.notifierIs(status->root());
  kernel.linkDel(3);
  kernel.linkIs(9, IFF_UP, "va0");
  loseEvents(start + 1);
  pass();
  EXPECT_THAT(watcher.log.take(), ElementsAre("onInterfaceByDeviceName(va0, none)",
                                              "onInterfaceByDeviceName(va0, va0 (ifIndex 9, flags 0x1))"));
  EXPECT_TRUE(status->synced());
}

// A dump the kernel marks interrupted may have missed devices: it only adds, and is repeated; a
// refused dump request is asked again later.
TEST_F(KernelNetInfoStatus, InterruptedOrRefusedDumpIsRepeated) {
  status->enabledIs(true);
  kernel.linkDel(4);
  kernel.linkIs(8, 0, "vf0");
  kernel.interruptNextDump();
  loseEvents(start + 1);
  pass();
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "4 vb0 0x0", "8 vf0 0x0"));
  EXPECT_EQ(std::tuple(status->dumpsInterrupted(), status->synced(), status->redumpPending()), std::tuple(1u, false, true));

  kernel.autoAnswerIs(false);
  time.nowIs(start + 1 + Status::defaultRedumpInterval);
  pass();
  ASSERT_EQ(kernel.dumpRequests().size(), 3u);
  kernel.newLink(8, IFF_UP, "vf0");  // read while the request is out: applied when it is refused
  kernel.refuse(EBUSY);
  pass();
  EXPECT_EQ(std::tuple(status->dumpInProgress(), status->redumpPending()), std::tuple(false, true));
  EXPECT_EQ(status->root()->interfaceByIfIndex(8), Interface(8, IFF_UP, "vf0"));

  kernel.autoAnswerIs(true);
  time.nowIs(start + 1 + 2 * Status::defaultRedumpInterval);
  pass();
  pass();
  EXPECT_EQ(std::tuple(kernel.dumpRequests().size(), status->synced()), std::tuple(4u, true));
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "8 vf0 0x1"));
}

// Bytes the kernel never sends: each message is read only when its whole length lies inside the bytes
// read; what follows one that does not fit is lost (a re-dump repairs it), and an error that is no
// errno is printed as it is. No row reads outside the datagram or overflows.
TEST_F(KernelNetInfoStatus, HostileBytesAreALossNeverAReadPastTheDatagram) {
  status->enabledIs(true);
  IntfsmTest::TraceCapture trace{{"KernelNetInfo", 1}};
  // `message` with the 4 bytes at `at` (0: nlmsg_len; 16: the error or result after the header) set.
  auto patched = [](std::string message, size_t at, uint32_t value) {
    std::memcpy(message.data() + at, &value, sizeof value);
    return message;
  };
  auto lengthIs = [&](std::string const & message, uint32_t length) { return patched(message, 0, length); };
  std::string const vc0 = FakeRtnetlink::linkMessage(RTM_NEWLINK, 0, 0, 5, 0, "vc0");
  std::string const vd0 = FakeRtnetlink::linkMessage(RTM_NEWLINK, 0, 0, 6, 0, "vd0");
  std::string const lost = "KernelNetInfo::Status lost events in namespace blue (malformed message); dumping again";
  struct Case {
    char const * what;
    bool duringDump;
    std::function<std::string(uint32_t dumpSeq)> bytes;
    std::vector<std::string> devices;
    std::vector<std::string> traces;
  };
  std::vector<std::string> const before = {"1 lo 0x49", "3 va0 0x1", "4 vb0 0x0"};
  std::vector<std::string> const withVc0 = {"1 lo 0x49", "3 va0 0x1", "4 vb0 0x0", "5 vc0 0x0"};
  std::vector<Case> const cases = {
      {"a length of 4 GiB less 16 ahead of a whole message", false,
       [&](uint32_t) { return lengthIs(vc0, 0xfffffff0) + vd0; }, before, {lost}},
      {"a whole message, then one claiming 2 GiB", false,
       [&](uint32_t) { return vc0 + lengthIs(vd0, 0x80000000); }, withVc0, {lost}},
      {"a length that aligns to 0, a walk that never moves on", false,
       [&](uint32_t) { return lengthIs(vc0, 0xfffffffd); }, before, {lost}},
      {"a length shorter than a header", false, [&](uint32_t) { return lengthIs(vc0, 8); }, before, {lost}},
      {"bytes left over after a whole message", false, [&](uint32_t) { return vc0 + std::string(4, '\0'); }, withVc0,
       {lost}},
      {"fewer bytes than a header", false, [&](uint32_t) { return vc0.substr(0, 10); }, before, {lost}},
      {"a dump refused with INT_MIN", true,
       [&](uint32_t seq) { return patched(FakeRtnetlink::errorMessage(seq, 0), 16, 0x80000000); }, before,
       {"KernelNetInfo::Status dump request refused in namespace blue, errno: 2147483648; trying again later"}},
      {"a dump ended with INT_MIN", true,
       [&](uint32_t seq) { return patched(FakeRtnetlink::doneMessage(seq), 16, 0x80000000); }, before,
       {"KernelNetInfo::Status dump # of namespace blue ended with errno: 2147483648",
        "KernelNetInfo::Status dump # of namespace blue interrupted by a change; dumping again"}},
  };
  double now = start;
  for (Case const & c : cases) {
    SCOPED_TRACE(c.what);
    now += 1;
    uint32_t seq = 0;
    if (c.duringDump) {
      kernel.autoAnswerIs(false);
      loseEvents(now);
      seq = kernel.dumpRequests().back();
      kernel.dumpBegin();  // taken off the queue: the row's bytes answer it
    }
    trace.clear();
    kernel.send(c.bytes(seq));
    pass();
    EXPECT_THAT(devices(), ElementsAreArray(c.devices));
    std::vector<std::string> traces = c.traces;  // "#" stands for the dump's sequence number
    for (std::string & t : traces) {
      if (auto at = t.find('#'); at != std::string::npos) t.replace(at, 1, std::to_string(seq));
    }
    EXPECT_THAT(trace.texts("KernelNetInfo", 0), ElementsAreArray(traces));
    EXPECT_FALSE(status->synced());
    // The re-dump puts the table back as the kernel has it.
    kernel.autoAnswerIs(true);
    now += 1;
    time.nowIs(now);
    pass();
    pass();
    EXPECT_THAT(devices(), ElementsAreArray(before));
    EXPECT_TRUE(status->synced());
  }
}

TEST_F(KernelNetInfoStatus, DisableClosesAndEnableAgainReconciles) {
  status->enabledIs(true);
  int const first = status->descriptor();
  ASSERT_TRUE(isOpen(first));

  status->enabledIs(false);
  EXPECT_EQ(std::tuple(status->synced(), status->descriptor(), loop.watches(), isOpen(first)), std::tuple(false, -1, 0u, false));
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "3 va0 0x1", "4 vb0 0x0"));  // last known

  kernel.linkDel(3);
  kernel.linkIs(4, 0, "wan0");
  status->enabledIs(true);
  EXPECT_THAT(devices(), ElementsAre("1 lo 0x49", "4 wan0 0x0"));
}

TEST_F(KernelNetInfoStatus, ReceiveBufferIsConfigurableAndFallsBackWithoutPrivilege) {
  status->rcvBufBytesIs(1024);
  fake.failNext(Kind::setsockopt, EPERM);  // SO_RCVBUFFORCE needs CAP_NET_ADMIN
  status->enabledIs(true);
  auto options = fake.calls(Kind::setsockopt);
  ASSERT_GE(options.size(), 2u);
  EXPECT_EQ(std::tuple(options[0].error, options[1].b, intOf(options[1].data)), std::tuple(EPERM, SO_RCVBUF, 1024));

  fake.clearCalls();
  status->rcvBufBytesIs(8192);  // applied at once while enabled
  options = fake.calls(Kind::setsockopt);
  ASSERT_EQ(options.size(), 1u);
  EXPECT_EQ(std::tuple(options[0].b, intOf(options[0].data)), std::tuple(SO_RCVBUFFORCE, 8192));

  EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>([&] { status->redumpIntervalIs(-1); }),
            "KernelNetInfo::Status::redumpInterval < 0 not allowed");
}

// A Root given at creation is the one filled (what it held before is reconciled away), and an
// InterfaceInfo reads it.
TEST_F(KernelNetInfoStatus, GivenRootIsTheOneFilledAndInterfaceInfoReadsIt) {
  auto root = KernelNetInfo::Root::rootNew("mine");
  root->interfaceIs(Interface(42, 0, "stale0"));
  auto own = Status::statusNew("kni2", Ovel::NamespaceName(), root, loop);
  EXPECT_TRUE(own->netNs().isDefault());  // empty means the default namespace
  own->enabledIs(true);
  EXPECT_EQ(std::tuple(fake.calls(Kind::socketAt).back().text, root->interfaceByIfIndexHas(42), root->interfaceByIfIndexs()),
            std::tuple("default", false, 3u));

  KernelNetInfo::InterfaceInfo info(own);
  EXPECT_EQ(std::tuple(info.ifIndex("va0"), info.isRunning("lo"), KernelNetInfo::InterfaceInfo().exists("lo")),
            std::tuple(3u, true, false));
}

// Given the namespaces that exist, the status is open only while its namespace does: gone (or another
// namespace under the name), the socket closes and every device is removed; back, it opens anew.
TEST_F(KernelNetInfoStatus, FollowsItsNamespaceThroughTheCollection) {
  IntfsmTest::TraceCapture trace{{"KernelNetInfo", 0x21}};  // levels 0 and 5
  auto netNs = KernelNetNsInfo::Root::rootNew("netNs");
  status->netNsCollectionIs(netNs);
  status->enabledIs(true);  // blue does not exist yet
  EXPECT_EQ(std::tuple(status->enabled(), status->descriptor(), fake.count(Kind::socketAt)), std::tuple(true, -1, 0u));
  int sd = -1;
  struct Step {
    std::function<void()> change;
    bool open;           // a socket is open after the change
    size_t opened;       // sockets asked for
    char const * trace;  // the first trace at level 0 or 5
  } const steps[] = {
      {[&] { netNs->namespaceIs(Ovel::NamespaceName("blue"), 7); }, true, 1, "namespace blue exists: opening in it"},
      {[&] { netNs->namespaceIs(Ovel::NamespaceName("red"), 8); }, true, 0, nullptr},
      {[&] { netNs->namespaceDel(Ovel::NamespaceName("blue")); }, false, 0,
       "namespace blue is gone: socket closed, 3 devices dropped"},
      {[&] { fake.failNext(Kind::socketAt, ENOENT), netNs->namespaceIs(Ovel::NamespaceName("blue"), 9); }, false, 1,
       "namespace blue exists: opening in it"},
      {[&] { netNs->namespaceDel(Ovel::NamespaceName("blue")), netNs->namespaceIs(Ovel::NamespaceName("blue"), 9); },
       true, 1, "namespace blue exists: opening in it"},
      {[&] { netNs->namespaceIs(Ovel::NamespaceName("blue"), 10); }, true, 1,
       "namespace blue is another namespace now: socket closed, 3 devices dropped"},
  };
  for (auto const & step : steps) {
    trace.clear();
    fake.clearCalls();
    step.change();
    // What is open and known, and whether the old socket was closed.
    EXPECT_EQ(std::tuple(status->descriptor() >= 0, fake.count(Kind::socketAt), fake.count(Kind::close), devices().size(),
                         status->synced()),
              std::tuple(step.open, step.opened, sd >= 0 && step.opened + !step.open ? 1u : 0u, step.open ? 3u : 0u,
                         step.open));
    // A namespace that cannot be entered now is traced, and waited for.
    EXPECT_EQ(trace.texts("KernelNetInfo", 0),
              std::vector<std::string>(step.opened && !step.open,
                                       "KernelNetInfo::Status socket failed in namespace blue, errno: 2"));
    EXPECT_EQ(trace.texts().empty() ? "" : trace.texts().front(), step.trace ? step.trace : "");
    sd = status->descriptor();
  }
  EXPECT_EQ(status->reopens(), 4u);
}

}  // namespace
