// The kernel oper-state subsystem wired as an agent wires it, over the fake platform: what reaches the
// kernel (requests, sockets, binds, closes) and what is traced for each change of the inputs, how
// failures end or spare the process, and what convergence sends for the kernel's link reports.
//
// The model-based test at the end runs random sequences of what an agent and the kernel do (statuses
// and local statuses inserted, replaced, re-inserted and deleted; operStatus over every value, mapped
// or not; device names, duplicates included; namespace moves; namespaces appearing and going;
// convergence turned on and off; the state machine started at any point) against the root and against a model of a few plain functions.
// A fixed seed and a few hundred sequences by default; more, or another seed, on demand:
//   RC_PARAMS="max_success=20000 seed=7" build/tests/unit_tests --gtest_filter='*OperStateModel*'
// A failure prints the shortest sequence found; each one found is kept as a named case below it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include <linux/if.h>
#include <linux/rtnetlink.h>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeRtnetlink.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/ThrownText.h"

namespace {

using Interface::IntfOperStatus;
using ::testing::ElementsAre;
using Kind = IntfsmTest::FakePlatform::Kind;
using Ovel::IntfId;
using Ovel::NamespaceName;
using Request = IntfsmTest::FakePlatform::OperStateRequest;
using Sm = KernelOperState::IntfStatusOperStatusSm;

class KernelOperStateTest : public IntfsmTest::ModuleTest {
 protected:
  // Convergence is off unless a test turns it on: one socket per namespace, no link monitor.
  KernelOperStateTest() : ModuleTest("KernelOperState") {}

  Vorn::Ptr<KernelOperState::Root> root = KernelOperState::rootFactory("kos");
  Vorn::Ptr<KernelOperState::IntfStatusDir> dir = root->intfStatusDirIs("intfStatus");
  Vorn::Ptr<KernelOperState::IntfStatusLocalDir> localDir = root->intfStatusLocalDirIs("intfStatusLocal");
  Vorn::Ptr<KernelNetNsInfo::Root> netNs = root->netNsCollectionIs("netNs");
  Vorn::Ptr<KernelOperState::KernelOperStateManager> kosm = root->kosmIs();

  static Vorn::Ptr<Interface::IntfStatus> status(char const * id, char const * device, IntfOperStatus s) {
    auto st = Interface::intfStatusFactory(IntfId(id));
    st->deviceNameIs(device);
    st->operStatusIs(s);
    return st;
  }
  static Vorn::Ptr<Interface::IntfStatusLocal> local(char const * id, char const * ns) {
    auto l = Interface::intfStatusLocalFactory(IntfId(id));
    l->netNsNameIs(NamespaceName(ns));
    return l;
  }
  Vorn::Ptr<Sm> start() { return root->intfStatusOperStatusSmIs(dir, localDir, kosm, netNs); }
  int cachedSd(char const * ns) const { return kosm->nsNetlinkSockFd(NamespaceName(ns)); }
  std::string nsOfSocket(int sd) const {
    for (auto const & c : fake.calls(Kind::socketAt)) {
      if (c.result == sd) return c.text;
    }
    return "?";
  }
};

// While it lives, traces go to stderr as "<level> <text>" and then leave errno changed, as a trace
// file on a full disk would: what perror prints after a trace shows whether errno was kept.
class ErrnoClobberingSink : public Brisklog::Sink {
 public:
  ErrnoClobberingSink() : previous_(Brisklog::sink()) { Brisklog::sinkIs(this); }
  ~ErrnoClobberingSink() override { Brisklog::sinkIs(previous_); }
  void lineIs(Brisklog::Line const & line) override {
    std::fprintf(stderr, "%u %.*s\n", line.level, static_cast<int>(line.text.size()), line.text.data());
    errno = ENOSPC;
  }

 private:
  Brisklog::Sink * previous_;
};

// Every status value, cached and local sockets, and the traces of each are in the model-based test.
TEST_F(KernelOperStateTest, ManagerTracesEachStepAndDoSetOperStateTargetsTheDefaultNamespace) {
  kosm->nsNetlinkSockFdIs(NamespaceName("blue"), 77);
  kosm->doSetOperState("et2", IntfOperStatus(3));
  auto const opened = fake.calls(Kind::socketAt);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(std::tuple(opened[0].a, opened[0].b, opened[0].c, opened[0].text), std::tuple(16, 2, 0, "default"));
  std::string const sd = std::to_string(opened[0].result);
  EXPECT_THAT(traces(), ElementsAre("doSetOperState( et2, intfOperTesting )",
                                    "doSetOperStateInNs( et2, intfOperTesting, default )",
                                    "creating local netlink socket", "doSetOperStateInNs sd: " + sd,
                                    "unknown operStatus: intfOperTesting"));
  EXPECT_THAT(fake.openDescriptors(), testing::IsEmpty());
  kosm->nsNetlinkSockFdDelAll();  // the cache mutators never close
  EXPECT_EQ(std::tuple(fake.count(Kind::close), kosm->nsNetlinkSockFds()), std::tuple(1u, 0u));
}

TEST_F(KernelOperStateTest, NamespacesComingAndGoing) {
  auto sm = start();
  netNs->namespaceIs(NamespaceName("blue"), 10);
  int const sd1 = cachedSd("blue");
  EXPECT_TRUE(trace.contains("Binding to socket. Sd: " + std::to_string(sd1)));
  // Notified present again: a fresh socket is cached and the one it replaces closed.
  netNs->netNsByNameNotify(NamespaceName("blue"));
  int const sd2 = cachedSd("blue");
  EXPECT_EQ(std::tuple(nsOfSocket(sd2), fake.openDescriptors()), std::tuple("blue", std::vector<int>{sd2}));

  netNs->namespaceDel(NamespaceName("blue"));
  EXPECT_EQ(std::tuple(kosm->nsNetlinkSockFdHas(NamespaceName("blue")), fake.openDescriptors(),
                       trace.contains("handleNsByName closing netlink socket: " + std::to_string(sd2))),
            std::tuple(false, std::vector<int>{}, true));

  trace.clear();
  netNs->netNsByNameNotify(NamespaceName("never"));
  EXPECT_THAT(traces(), ElementsAre("IntfStatusOperStatusSm::handleNsByName(name=never)",
                                    "No cached netlink socket fd found. Just return"));
}

// A link report as the kernel multicasts it: RTM_NEWLINK carrying IFLA_OPERSTATE, or RTM_DELLINK.
std::string report(uint32_t ifIndex, char const * device, int operState) {
  if (operState < 0) return IntfsmTest::FakeRtnetlink::linkMessage(RTM_DELLINK, 0, 0, ifIndex, 0, device);
  return IntfsmTest::FakeRtnetlink::linkMessage(RTM_NEWLINK, 0, 0, ifIndex, IFF_UP, device, 0, std::nullopt, operState);
}

TEST_F(KernelOperStateTest, ConvergenceSendsTheDecidedStateAgainOncePerReportThatTheKernelWouldApply) {
  IntfsmTest::FakeRtnetlink kernel(fake);
  NamespaceName const blue("blue");
  int const fds = IntfsmTest::openDescriptorCount();
  root->operStateConvergenceIs(true);
  kosm->nsNetlinkSockFdIs(blue, 77);
  ASSERT_TRUE(kosm->linkMonitor(blue) && kosm->linkMonitor(blue)->synced());
  kosm->doSetOperStateInNs("et1", Interface::intfOperUp, blue);
  kosm->doSetOperStateInNs("et2", Interface::intfOperDown, blue);
  kosm->doSetOperStateInNs("et3", Interface::intfOperUp, blue);
  kosm->doSetOperStateInNs("et3", IntfOperStatus(3), blue);  // unmapped: decides nothing, forgets UP
  EXPECT_EQ(kosm->decidedOperStates(), 2u);

  struct Case {
    uint32_t ifIndex;
    char const * device;
    int kernelState;  // -1: the device is deleted
    int sent;         // -1: nothing
  } const cases[] = {
      {1, "et1", IF_OPER_UP, -1},  // already the decided state
      {1, "et1", IF_OPER_DORMANT, IF_OPER_UP},        {1, "et1", IF_OPER_LOWERLAYERDOWN, -1},  // no carrier: wait
      {1, "et1", IF_OPER_UNKNOWN, IF_OPER_UP},        {1, "et1", IF_OPER_TESTING, IF_OPER_UP},
      {1, "et1", IF_OPER_DOWN, -1},                   {2, "et2", IF_OPER_UP, IF_OPER_DORMANT},
      {2, "et2", IF_OPER_UNKNOWN, IF_OPER_DORMANT},   {2, "et2", IF_OPER_LOWERLAYERDOWN, -1},
      {2, "et2", -1, -1},                             {9, "et2", IF_OPER_UP, IF_OPER_DORMANT},  // re-created
      {3, "et3", IF_OPER_DORMANT, -1},                {4, "et4", IF_OPER_DORMANT, -1},          // never decided
      {4, "et1", IF_OPER_DORMANT, IF_OPER_UP},  // renamed to a decided name: one report, one request
      {4, "et1", IF_OPER_DORMANT, -1},          // the same report again, the request not applied: no loop
  };
  for (auto const & c : cases) {
    SCOPED_TRACE(std::string(c.device) + " ifIndex " + std::to_string(c.ifIndex) + " kernel " +
                 std::to_string(c.kernelState));
    fake.clearCalls();
    trace.clear();
    kernel.send(report(c.ifIndex, c.device, c.kernelState));
    runUntilIdle();
    std::vector<Request> sent;
    std::vector<std::string> reasserted;
    if (c.sent >= 0) {
      sent.push_back({77, c.device, 111, c.sent});
      char const * const names[] = {"UNKNOWN", "", "DOWN", "LOWERLAYERDOWN", "TESTING", "DORMANT", "UP"};
      reasserted.push_back(std::string("re-asserting operstate of ") + c.device + " in namespace blue: kernel " +
                           names[c.kernelState] + ", decided " + names[c.sent]);
    }
    EXPECT_EQ(fake.operStateRequests(), sent);
    EXPECT_EQ(trace.texts("KernelOperState", 5), reasserted);
  }
  EXPECT_EQ(kosm->reassertions(), std::count_if(std::begin(cases), std::end(cases), [](Case c) { return c.sent >= 0; }));

  // The namespace gone, or convergence off through the root: the monitor closed (the fake kernel's end
  // of its socket pair stays open). Gone, the namespace's decided states go too.
  kosm->nsNetlinkSockFdDel(blue);
  EXPECT_EQ(std::tuple(!kosm->linkMonitor(blue), kosm->decidedOperStates(), IntfsmTest::openDescriptorCount()),
            std::tuple(true, 0u, fds + 1));
  kosm->nsNetlinkSockFdIs(blue, 77);
  root->operStateConvergenceIs(false);  // closes the monitor, forgets what was decided
  EXPECT_EQ(std::tuple(!kosm->linkMonitor(blue), kosm->decidedOperStates(), IntfsmTest::openDescriptorCount()),
            std::tuple(true, 0u, fds + 1));
  root->operStateConvergenceIs(true);
  // A fresh socket in place of the cached one: the name may stand for a namespace made again, which
  // only a monitor opened anew sees.
  auto const monitor = kosm->linkMonitor(blue);
  kosm->nsNetlinkSockFdIs(blue, 78);
  EXPECT_TRUE(monitor && kosm->linkMonitor(blue) && kosm->linkMonitor(blue) != monitor);
  root->kosmDel();
  EXPECT_TRUE(root->kosmIs()->operStateConvergence());  // the root's setting applies to a new manager
}

TEST_F(KernelOperStateTest, AReactorRemovedFromItsCollectionIsUnboundAtOnceAndNotified) {
  struct Watcher : Sm::NotifieeConst {
    void onIntfStatus(IntfId const & id) override { keys.push_back("status " + id.name().stdString()); }
    void onIntfStatusLocal(IntfId const & id) override { keys.push_back("local " + id.name().stdString()); }
    std::vector<std::string> keys;
  };
  auto sm = start();
  Vorn::Ptr<Watcher> w = new Watcher;
  w->notifierIs(sm);
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  auto l = local("Ethernet1", "blue");
  dir->intfStatusIs(status("Ethernet1", "et0", Interface::intfOperUp));
  dir->intfStatusIs(st);  // rebound: the state machine's collection is unchanged
  localDir->intfStatusLocalIs(l);
  dir->intfStatusDel(IntfId("Ethernet1"));
  localDir->intfStatusLocalDel(IntfId("Ethernet1"));
  EXPECT_THAT(w->keys, ElementsAre("status Ethernet1", "local Ethernet1", "status Ethernet1", "local Ethernet1"));
  EXPECT_EQ(st->notifiees() + l->notifiees(), 0u);  // a held reactor retired is the framework's (ReactorTest.cpp)
}

TEST_F(KernelOperStateTest, RootKeepsTheStateMachineOnlyForTheSameFourInputs) {
  netNs->namespaceIs(NamespaceName("default"), 1);
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(st);
  auto sm = start();
  EXPECT_EQ(start(), sm);
  // Kept, with no second start-up sync; the same name keeps the child too.
  EXPECT_EQ(std::tuple(trace.count("handleInitialized"), root->intfStatusDirIs("intfStatus")), std::tuple(1u, dir));

  Vorn::Ptr<KernelOperState::KernelOperStateManager> otherKosm = new KernelOperState::KernelOperStateManager;
  std::function<Vorn::Ptr<Sm>()> const others[] = {
      [&] { return root->intfStatusOperStatusSmIs(root->intfStatusDirIs("d2"), localDir, kosm, netNs); },
      [&] { return root->intfStatusOperStatusSmIs(dir, root->intfStatusLocalDirIs("l2"), kosm, netNs); },
      [&] { return root->intfStatusOperStatusSmIs(dir, localDir, otherKosm, netNs); },
      [&] { return root->intfStatusOperStatusSmIs(dir, localDir, kosm, root->netNsCollectionIs("n2")); },
      [&] { return KernelOperState::IntfStatusOperStatusSmIs(dir, localDir, kosm, netNs); },  // the factory form
  };
  for (auto const & other : others) {
    auto base = start();
    trace.clear();
    EXPECT_NE(other(), base);
    EXPECT_EQ(trace.count("handleInitialized"), 1u);  // a new one, with its own start-up sync
  }

  // Released machines are zombies; destroying one leaves the cached sockets open.
  auto open = fake.openDescriptors();
  sm = nullptr;
  root->intfStatusOperStatusSmDel();
  fake.clearCalls();
  st->operStatusIs(Interface::intfOperDown);
  netNs->namespaceDel(NamespaceName("default"));
  EXPECT_EQ(std::tuple(fake.calls().size(), fake.openDescriptors()), std::tuple(0u, open));
}

TEST_F(KernelOperStateTest, NullEntitiesAreRangeErrorsAndChangeNothing) {
  auto sm = start();
  std::pair<std::function<void()>, char const *> const nulls[] = {
      {[&] { sm->intfStatusIs(nullptr); }, "IntfStatusOperStatusSm::intfStatus"},
      {[&] { sm->intfStatusLocalIs(nullptr); }, "IntfStatusOperStatusSm::intfStatusLocal"},
      {[&] { dir->intfStatusIs(nullptr); }, "IntfStatusDir::intfStatus"},
      {[&] { localDir->intfStatusLocalIs(nullptr); }, "IntfStatusLocalDir::intfStatusLocal"},
  };
  for (auto const & [call, attribute] : nulls) {
    std::string const name = std::string(attribute).substr(std::string(attribute).find("::") + 2);
    EXPECT_EQ(IntfsmTest::thrownText<Vorn::RangeException>(call),
              "null _" + name + " parameter to mutator for KernelOperState::" + attribute + " not allowed\"");
  }
  EXPECT_EQ(dir->intfStatuss() + localDir->intfStatusLocals() + sm->intfStatuss() + sm->intfStatusLocals(), 0u);
}

using KernelOperStateDeathTest = KernelOperStateTest;

TEST_F(KernelOperStateDeathTest, FailuresEndTheProcessOrAreReportedWithTheFailedCallsErrno) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto sm = start();
  using Call = std::function<void(char const * ns)>;
  Call const request = [&](char const * ns) {
    kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName(ns));
  };
  Call const appear = [&](char const * ns) { netNs->namespaceIs(NamespaceName(ns), 1); };
  struct Fatal {
    Kind failing;
    int error;
    Call call;
    char const * ns;
    char const * stderrRegex;
  } const fatal[] = {
      {Kind::socketAt, ENOBUFS, request, "default", "8 doSetOperStateInNs sd: -1\nsocket: No buffer space available\n$"},
      {Kind::bind, EADDRINUSE, request, "blue", "8 Bind error: -1\nbind: Address already in use\n$"},
      {Kind::setNetlinkOperState, ENOBUFS, request, "blue", ""},
      {Kind::socketAt, EACCES, appear, "default", "8 created netlink socket. Sd: -1\nsocket: Permission denied\n$"},
      {Kind::bind, EACCES, appear, "blue", "8 Bind error: -1\nbind: Permission denied\n$"},
  };
  for (auto const & c : fatal) {
    EXPECT_EXIT(
        {
          ErrnoClobberingSink sink;
          fake.failNext(c.failing, c.error);
          c.call(c.ns);
        },
        testing::ExitedWithCode(1), c.stderrRegex);
  }
  std::pair<std::function<void()>, char const *> const asserted[] = {
      {[&] { kosm->nsNetlinkSockFdIs(NamespaceName("blue"), -3), request("blue"); },
       "assertion \"localSocket == true\" failed"},
      {[&] { kosm->nsNetlinkSockFdIs(NamespaceName("gone"), -5), netNs->netNsByNameNotify(NamespaceName("gone")); },
       "Failed\\(sd >= 0\\)  sd: -5 ns name : gone\n(.|\n)*assertion \"!\"sd >= 0\"\" failed"},
      {[&] { root->intfStatusOperStatusSmIs(dir, nullptr, kosm, netNs)->doSyncIntfStatus(IntfId("Ethernet1")); },
       "assertion \"intfStatusLocalDir\\(\\)\" failed"},
      {[&] { root->intfStatusOperStatusSmIs(nullptr, localDir, kosm, netNs)->doSyncIntfStatus(IntfId("Ethernet1")); },
       "assertion \"intfStatusDir\\(\\)\" failed"},
  };
  for (auto const & [call, regex] : asserted) EXPECT_DEATH(call(), regex);

  // No socket in a named namespace: reported; nothing is sent or cached. Out of descriptors, in any
  // namespace: one level-0 trace naming it while the shortage lasts, no perror and no exit.
  std::string const perror = std::string("\nsocket: ") + strerror(ENOENT) + "\n";
  std::string const shortage = "0 cannot open oper-state netlink socket for namespace red, errno: 24 (out of descriptors)\n";
  for (auto const & [error, call, stderrEnd] : {std::tuple{ENOENT, request, perror}, std::tuple{ENOENT, appear, perror},
                                                std::tuple{EMFILE, request, shortage},
                                                std::tuple{ENFILE, request, std::string("sd: -1\n")}}) {
    ErrnoClobberingSink sink;
    fake.clearCalls();
    fake.failNext(Kind::socketAt, error);
    testing::internal::CaptureStderr();
    call("red");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith(stderrEnd));
    // Nothing but the failed socketAt, nothing cached.
    EXPECT_EQ(std::tuple(fake.calls().size(), kosm->nsNetlinkSockFdHas(NamespaceName("red"))), std::tuple(1u, false));
  }
}

// A namespace whose cached socket could not be had for lack of descriptors is tried again on the
// clock while it exists; once the socket opens, every interface is synced again (its request was
// dropped meanwhile), and the shortage is over.
TEST_F(KernelOperStateTest, OutOfDescriptorsTheCachedSocketIsTriedAgainAndTheInterfacesSynced) {
  auto sm = start();
  fake.failNext(Kind::socketAt, EMFILE);
  netNs->namespaceIs(NamespaceName("blue"), 10);
  localDir->intfStatusLocalIs(local("Ethernet1", "blue"));
  fake.failNext(Kind::socketAt, EMFILE);
  dir->intfStatusIs(status("Ethernet1", "et1", Interface::intfOperUp));  // its local socket: none either
  EXPECT_EQ(std::tuple(sm->shortOfDescriptors(), fake.operStateRequests().size()), std::tuple(1u, 0u));
  Vorn::DescriptorUse const blue{"oper-state netlink socket", "namespace blue"};
  EXPECT_THAT(Vorn::descriptorShortages(), testing::Contains(blue));
  fake.failNext(Kind::socketAt, ENFILE);
  advanceAndRun(Sm::shortageRetryInterval);
  EXPECT_EQ(std::tuple(trace.countContaining("cannot open oper-state netlink socket for namespace blue, errno: "),
                       kosm->nsNetlinkSockFdHas(NamespaceName("blue"))),
            std::tuple(1u, false));
  advanceAndRun(Sm::shortageRetryInterval);
  int const sd = cachedSd("blue");
  EXPECT_THAT(fake.operStateRequests(), ElementsAre(Request{sd, "et1", 111, 6}));
  EXPECT_EQ(std::tuple(Vorn::descriptorUseOf(sd), sm->shortOfDescriptors()), std::tuple(blue, 0u));
  EXPECT_THAT(Vorn::descriptorShortages(), testing::Not(testing::Contains(blue)));
  netNs->namespaceDel(NamespaceName("blue"));
  EXPECT_EQ(Vorn::descriptorUseOf(sd), Vorn::DescriptorUse{});
}

// ---- the model-based test ----------------------------------------------------------------------

[[maybe_unused]] int const rcDefaults = setenv("RC_PARAMS", "seed=18 max_success=300", /*overwrite=*/0);

char const * const ids[] = {"Ethernet1", "Ethernet2", "Ethernet3"};
char const * const devices[] = {"", "et1", "et2"};
char const * const localNames[] = {"", "default", "blue", "red", "green"};  // green never exists
char const * const namespaces[] = {"default", "blue", "red"};

struct Command {
  enum Op : uint8_t {
    statusNew,       // a new IntfStatus for ids[id] (device a, operStatus b) into the directory
    statusReinsert,  // the status last made for ids[id], into the directory again
    statusDel,
    operStatusIs,    // on the status last made for ids[id], in the directory or not
    deviceNameIs,
    localNew,        // a new IntfStatusLocal (netNsName localNames[a]) into the directory
    localDel,
    netNsNameIs,
    namespaceIs,     // namespaces[id] exists
    namespaceDel,
    convergenceIs,   // on when a is odd
    start,           // the state machine (after the first, the same four inputs keep it)
    ops
  } op;
  uint8_t id, a, b;
  int i() const { return id % 3; }
  char const * device() const { return devices[a % 3]; }
  int operStatus() const { return b % 9; }
  char const * localName() const { return localNames[a % 5]; }
};

void showValue(Command const & c, std::ostream & os) {
  static char const * const names[] = {"statusNew",    "statusReinsert", "statusDel",   "operStatusIs",
                                       "deviceNameIs", "localNew",       "localDel",    "netNsNameIs",
                                       "namespaceIs",  "namespaceDel",   "convergenceIs", "start"};
  os << names[c.op] << "(";
  if (c.op == Command::convergenceIs) os << (c.a % 2 ? "true" : "false");
  if (c.op == Command::namespaceIs || c.op == Command::namespaceDel) os << namespaces[c.i()];
  if (c.op < Command::namespaceIs) os << ids[c.i()];
  if (c.op == Command::statusNew || c.op == Command::deviceNameIs) os << ", \"" << c.device() << "\"";
  if (c.op == Command::statusNew || c.op == Command::operStatusIs) os << ", " << c.operStatus();
  if (c.op == Command::localNew || c.op == Command::netNsNameIs) os << ", \"" << c.localName() << "\"";
  os << ")";
}

// The kernel operstate sent for a status: 1 is up (6), 2, 5, 6 and 7 are dormant (5), others nothing.
int kernelValue(int operStatus) {
  if (operStatus == 1) return 6;
  return operStatus == 2 || operStatus == 5 || operStatus == 6 || operStatus == 7 ? 5 : -1;
}

// The model: what the agent and the kernel hold, and convergence's bookkeeping (where each interface
// in the directory was last synced to, "<ns> <device>", and the state decided for each such place).
struct Model {
  struct Status {
    std::string device;
    int operStatus;
    bool inDir;
  };
  std::optional<Status> status[3];
  std::optional<std::pair<std::string, bool>> local[3];  // netNsName, in the directory
  std::set<std::string> exists;                          // namespaces
  bool convergence = false;
  bool started = false;
  std::optional<std::string> at[3];
  std::map<std::string, int> decided;
  std::vector<std::string> expectedTraces;  // of the command being applied, besides the syncs'

  bool inDir(int i) const { return status[i] && status[i]->inDir; }
  std::string place(int i) const {
    bool const named = local[i] && local[i]->second && !local[i]->first.empty();
    return (named ? local[i]->first : "default") + " " + status[i]->device;
  }
  // "<namespace> <device> <operstate>" of the request that syncing interface `i` sends, or "".
  std::string request(int i) const {
    if (!inDir(i) || status[i]->device.empty() || kernelValue(status[i]->operStatus) < 0) return "";
    return place(i) + " " + std::to_string(kernelValue(status[i]->operStatus));
  }
  // Interface i leaves its place: the decided state there goes unless another interface is there too.
  void leave(int i) {
    bool shared = false;
    for (int j = 0; j < 3; ++j) shared = shared || (j != i && at[j] == at[i]);
    if (at[i] && !shared) decided.erase(*at[i]);
    at[i].reset();
  }
  void sync(int i) {
    if (!inDir(i)) return;
    if (at[i] != place(i)) leave(i);
    at[i] = place(i);
    if (!convergence || status[i]->device.empty()) return;
    int const value = kernelValue(status[i]->operStatus);
    value < 0 ? void(decided.erase(place(i))) : void(decided[place(i)] = value);
  }
};

class KernelOperStateModel : public KernelOperStateTest {
 protected:
  // Applies `c` to the root and to the model; returns the interfaces that the state machine syncs.
  std::vector<int> step(Model & m, Command const & c) {
    int const i = c.i();
    auto & st = m.status[i];
    auto & lo = m.local[i];
    bool changed = false;
    switch (c.op) {
      case Command::statusNew:
        dir->intfStatusIs(statuses[i] = status(ids[i], c.device(), IntfOperStatus(c.operStatus())));
        st = Model::Status{c.device(), c.operStatus(), true};
        changed = true;
        break;
      case Command::statusReinsert:
        if (statuses[i]) dir->intfStatusIs(statuses[i]);
        changed = st && !st->inDir;
        if (st) st->inDir = true;
        break;
      case Command::statusDel:
        dir->intfStatusDel(IntfId(ids[i]));
        if (m.inDir(i)) m.leave(i);
        if (st) st->inDir = false;
        break;
      case Command::operStatusIs:
        if (statuses[i]) statuses[i]->operStatusIs(IntfOperStatus(c.operStatus()));
        changed = m.inDir(i) && st->operStatus != c.operStatus();
        if (st) st->operStatus = c.operStatus();
        break;
      case Command::deviceNameIs:
        if (statuses[i]) statuses[i]->deviceNameIs(c.device());
        changed = m.inDir(i) && st->device != c.device();
        if (st) st->device = c.device();
        break;
      case Command::localNew:
        localDir->intfStatusLocalIs(locals[i] = local(ids[i], c.localName()));
        lo = std::pair(std::string(c.localName()), true);
        changed = true;
        break;
      case Command::localDel:
        localDir->intfStatusLocalDel(IntfId(ids[i]));
        if (lo) lo->second = false;
        break;
      case Command::netNsNameIs:
        if (locals[i]) locals[i]->netNsNameIs(NamespaceName(c.localName()));
        changed = lo && lo->second && lo->first != c.localName();
        if (lo) lo->first = c.localName();
        break;
      case Command::namespaceIs: {
        netNs->namespaceIs(NamespaceName(namespaces[i]), 1 + i);
        // With convergence on, the interfaces of a namespace that appears are synced again.
        bool const appeared = m.exists.insert(namespaces[i]).second;
        std::vector<int> synced;
        for (int j = 0; j < 3 && appeared && m.convergence && m.started; ++j) {
          if (m.inDir(j) && m.place(j).starts_with(namespaces[i] + std::string(" "))) synced.push_back(j);
        }
        return synced;
      }
      case Command::namespaceDel:
        netNs->namespaceDel(NamespaceName(namespaces[i]));
        if (m.exists.erase(namespaces[i])) {
          std::erase_if(m.decided, [&](auto const & e) { return e.first.starts_with(namespaces[i] + std::string(" ")); });
        }
        break;
      case Command::convergenceIs: {
        root->operStateConvergenceIs(c.a % 2);
        std::vector<int> all;  // turned on, every interface in the directory is synced again
        for (int j = 0; j < 3 && c.a % 2 && !m.convergence && m.started; ++j) {
          if (m.inDir(j)) all.push_back(j);
        }
        if (!(m.convergence = c.a % 2)) m.decided.clear();
        return all;
      }
      case Command::start: {
        start();  // its reactors skip until the start-up sync, which syncs every interface in the directory
        std::vector<int> all;
        for (int j = 0; j < 3 && !m.started; ++j) {
          if (m.inDir(j)) all.push_back(j);
          for (bool skips : {m.inDir(j), m.local[j] && m.local[j]->second}) {
            if (skips) m.expectedTraces.push_back("Skipping because not initialized yet");
          }
        }
        m.started = true;
        return all;
      }
      default:
        break;
    }
    return changed && m.started ? std::vector<int>{i} : std::vector<int>{};
  }

  // Runs `commands` against the root and the model, checking after each.
  void run(std::vector<Command> const & commands) {
    Model m;
    std::map<int, std::string> nsOfSocket;
    for (Command const & c : commands) {
      fake.clearCalls();
      trace.clear();
      bool const existed = m.exists.count(namespaces[c.i()]);
      m.expectedTraces.clear();
      std::vector<int> const synced = step(m, c);
      for (int i : synced) m.sync(i);

      // What was sent, and traced at levels 0, 1 and 5, for each interface synced.
      std::vector<std::string> expected, expectedTraces = m.expectedTraces, sent, traced;
      for (int i : synced) {
        RC_ASSERT(trace.contains("doSyncIntfStatus( " + std::string(ids[i]) + " )"));
        if (!m.inDir(i)) continue;  // nothing to push
        if (!m.request(i).empty()) expected.push_back(m.request(i));
        if (!m.exists.count(m.at[i]->substr(0, m.at[i]->find(' ')))) expectedTraces.push_back("creating local netlink socket");
        std::ostringstream unknown;
        unknown << "unknown operStatus: " << IntfOperStatus(m.status[i]->operStatus);
        if (m.status[i]->device.empty()) {
          expectedTraces.push_back("not sending IFLA_OPERSTATE message because deviceName is empty");
        } else if (kernelValue(m.status[i]->operStatus) < 0) {
          expectedTraces.push_back(unknown.str());
        }
      }
      for (unsigned level : {0, 1, 5}) {
        for (auto const & t : trace.texts("KernelOperState", level)) {
          if (!t.starts_with("no link monitor")) traced.push_back(t);  // convergence's monitors cannot be had here
        }
      }
      // Each netlink socket of a request or the cache: routing netlink, bound with a kernel-chosen pid.
      for (auto const & call : fake.calls(Kind::socketAt)) {
        RC_ASSERT(call.b != SOCK_DGRAM || (call.a == 16 && call.c == 0));
        nsOfSocket[static_cast<int>(call.result)] = call.text;
      }
      for (auto const & call : fake.calls(Kind::bind)) RC_ASSERT(call.data == std::string("\x10\0\0\0\0\0\0\0\0\0\0\0", 12));
      for (auto const & r : fake.operStateRequests()) {
        std::string const & ns = nsOfSocket[r.sd];
        sent.push_back(ns + " " + r.deviceName + " " + std::to_string(r.operState));
        // A namespace with a cached socket is sent to on it; any other on a local one.
        RC_ASSERT(kosm->nsNetlinkSockFdHas(NamespaceName(ns)) == (kosm->nsNetlinkSockFd(NamespaceName(ns)) == r.sd));
        RC_ASSERT(r.tag == 111);
      }
      for (auto * v : {&expected, &expectedTraces, &sent, &traced}) std::sort(v->begin(), v->end());
      RC_ASSERT(sent == expected);
      RC_ASSERT(traced == expectedTraces);
      // Which handler ran first.
      std::string const first = traces().empty() ? "" : traces().front();
      if (c.op < Command::localNew && !first.empty()) {
        RC_ASSERT(first == "handleOperStatusOrDeviceName( " + std::string(ids[c.i()]) + " )");
      } else if (c.op < Command::namespaceIs && !first.empty()) {
        RC_ASSERT(first == "handleNetNsName( " + std::string(ids[c.i()]) + " )");
      } else if (c.op >= Command::namespaceIs && c.op < Command::convergenceIs && m.started &&
                 existed != (c.op == Command::namespaceIs)) {
        RC_ASSERT(first == "IntfStatusOperStatusSm::handleNsByName(name=" + std::string(namespaces[c.i()]) + ")");
      }

      // One cached socket per namespace that exists, opened there; nothing else open; no decided state
      // but the model's (none while convergence is off).
      std::vector<int> cached;
      for (auto const & e : kosm->nsNetlinkSockFdIter()) {
        RC_ASSERT(m.started && m.exists.count(e.key.charPtr()) == 1u);
        RC_ASSERT(nsOfSocket[e.value] == e.key.charPtr());
        cached.push_back(e.value);
      }
      std::sort(cached.begin(), cached.end());
      RC_ASSERT(cached.size() == (m.started ? m.exists.size() : 0u));
      RC_ASSERT(fake.openDescriptors() == cached);
      RC_ASSERT(kosm->decidedOperStates() == m.decided.size());
      for (auto const & [place, value] : m.decided) {
        std::string const ns = place.substr(0, place.find(' '));
        RC_ASSERT(kosm->decidedOperState(NamespaceName(ns), place.substr(ns.size() + 1).c_str()) == value);
      }
    }
  }

  Vorn::Ptr<Interface::IntfStatus> statuses[3];
  Vorn::Ptr<Interface::IntfStatusLocal> locals[3];
};

}  // namespace

namespace rc {
template <>
struct Arbitrary<Command> {
  static Gen<Command> arbitrary() {
    return gen::construct<Command>(gen::cast<Command::Op>(gen::inRange<int>(0, Command::ops)),
                                   gen::inRange<uint8_t>(0, 3), gen::inRange<uint8_t>(0, 5),
                                   gen::inRange<uint8_t>(0, 9));
  }
};
}  // namespace rc

RC_GTEST_FIXTURE_PROP(KernelOperStateModel, EveryCommandSendsWhatTheModelDecides,
                      (std::vector<Command> const & commands)) {
  run(commands);
}

// Failures the model-based test found, shrunk, kept as cases.
namespace {

// Ethernet1 left et1 while Ethernet2 still named it: et1's decided state was dropped, and et1 went
// without convergence. Fixed: a place's decided state goes only with the last interface there.
TEST_F(KernelOperStateModel, AnInterfaceLeavingADeviceThatAnotherStillNamesKeepsItsDecidedState) {
  using C = Command;
  run({{C::start, 0, 0, 0}, {C::statusNew, 0, 1, 0}, {C::convergenceIs, 0, 1, 0}, {C::statusNew, 1, 1, 5},
       {C::statusNew, 0, 0, 0}});
  EXPECT_EQ(kosm->decidedOperState(NamespaceName("default"), "et1"), IF_OPER_DORMANT);
}

}  // namespace
