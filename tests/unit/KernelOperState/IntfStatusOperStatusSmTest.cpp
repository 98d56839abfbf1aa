// The oper-status state machine and the root that wires it, with the kernel replaced: what reaches
// the kernel (requests, sockets, binds, closes) for each change of the inputs.
#include <gtest/gtest.h>

#include <cerrno>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/TraceCapture.h"

using IntfsmTest::FakePlatform;
using Kind = IntfsmTest::FakePlatform::Kind;
using Request = IntfsmTest::FakePlatform::OperStateRequest;
using Ovel::IntfId;
using Ovel::NamespaceName;

namespace {

class OperStateSmTest : public ::testing::Test {
 protected:
  FakePlatform fake;
  TraceCapture trace{"KernelOperState"};
  Vorn::Ptr<KernelOperState::Root> root = KernelOperState::rootFactory("kos");
  Vorn::Ptr<KernelOperState::IntfStatusDir> dir = root->intfStatusDirIs("intfStatus");
  Vorn::Ptr<KernelOperState::IntfStatusLocalDir> localDir = root->intfStatusLocalDirIs("intfStatusLocal");
  Vorn::Ptr<KernelNetNsInfo::Root> netNs = root->netNsCollectionIs("netNs");
  Vorn::Ptr<KernelOperState::KernelOperStateManager> kosm = root->kosmIs();

  Vorn::Ptr<Interface::IntfStatus> status(char const * id, char const * device, Interface::IntfOperStatus s) {
    auto st = Interface::intfStatusFactory(IntfId(id));
    st->deviceNameIs(device);
    st->operStatusIs(s);
    return st;
  }
  Vorn::Ptr<Interface::IntfStatusLocal> local(char const * id, char const * ns) {
    auto l = Interface::intfStatusLocalFactory(IntfId(id));
    l->netNsNameIs(NamespaceName(ns));
    return l;
  }
  Vorn::Ptr<KernelOperState::IntfStatusOperStatusSm> start() {
    return root->intfStatusOperStatusSmIs(dir, localDir, kosm, netNs);
  }
  // The namespace each request went to, by the socket it used.
  std::string nsOfSocket(int sd) {
    for (auto const & c : fake.calls(Kind::socketAt)) {
      if (c.result == sd) return c.text;
    }
    return "?";
  }
};

TEST_F(OperStateSmTest, StartUpOpensOneSocketPerNamespaceAndSyncsEveryInterface) {
  netNs->namespaceIs(NamespaceName("default"), 4026531840u);
  netNs->namespaceIs(NamespaceName("blue"), 4026532000u);
  dir->intfStatusIs(status("Ethernet1", "et1", Interface::intfOperUp));
  dir->intfStatusIs(status("Ethernet2", "et2", Interface::intfOperDown));
  localDir->intfStatusLocalIs(local("Ethernet2", "blue"));

  auto sm = start();
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(sm->intfStatuss(), 2u);
  EXPECT_EQ(sm->intfStatusLocals(), 1u);

  // One cached, bound socket per namespace, none closed.
  EXPECT_EQ(fake.count(Kind::socketAt), 2u);
  EXPECT_EQ(fake.count(Kind::bind), 2u);
  EXPECT_EQ(fake.count(Kind::close), 0u);
  int defaultSd = kosm->nsNetlinkSockFd(NamespaceName("default"));
  int blueSd = kosm->nsNetlinkSockFd(NamespaceName("blue"));
  EXPECT_EQ(nsOfSocket(defaultSd), "default");
  EXPECT_EQ(nsOfSocket(blueSd), "blue");

  auto requests = fake.operStateRequests();
  ASSERT_EQ(requests.size(), 2u);
  std::sort(requests.begin(), requests.end(), [](auto & a, auto & b) { return a.deviceName < b.deviceName; });
  EXPECT_EQ(requests[0], (Request{defaultSd, "et1", 111, 6}));
  EXPECT_EQ(requests[1], (Request{blueSd, "et2", 111, 5}));

  // Reactors created during construction only skipped: the sync came with handleInitialized.
  EXPECT_EQ(trace.count("Skipping because not initialized yet"), 3u);
  EXPECT_EQ(trace.count("handleInitialized"), 1u);
  EXPECT_EQ(trace.count("IntfStatusOperStatusSm::handleNsByName"), 1u);
  EXPECT_EQ(trace.count("created netlink socket. Sd: " + std::to_string(blueSd)), 1u);
  EXPECT_EQ(trace.count("Binding to socket. Sd: " + std::to_string(blueSd)), 1u);
}

TEST_F(OperStateSmTest, ChangesOfStatusDeviceNameAndNamespaceEachResyncTheInterface) {
  netNs->namespaceIs(NamespaceName("default"), 1);
  netNs->namespaceIs(NamespaceName("blue"), 2);
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(st);
  auto sm = start();
  int defaultSd = kosm->nsNetlinkSockFd(NamespaceName("default"));
  int blueSd = kosm->nsNetlinkSockFd(NamespaceName("blue"));
  fake.clearCalls();

  st->operStatusIs(Interface::intfOperNotPresent);
  st->deviceNameIs("et1b");
  st->deviceNameIs("et1b");  // unchanged: nothing
  auto l = local("Ethernet1", "");
  localDir->intfStatusLocalIs(l);  // empty netNsName: still the default namespace
  l->netNsNameIs(NamespaceName("blue"));
  st->operStatusIs(Interface::intfOperUp);
  EXPECT_EQ(fake.operStateRequests(), (std::vector<Request>{{defaultSd, "et1", 111, 5},
                                                            {defaultSd, "et1b", 111, 5},
                                                            {defaultSd, "et1b", 111, 5},
                                                            {blueSd, "et1b", 111, 5},
                                                            {blueSd, "et1b", 111, 6}}));
  EXPECT_EQ(fake.count(Kind::socketAt), 0u);  // cached sockets only
  EXPECT_TRUE(trace.contains("handleNetNsName( Ethernet1 )"));
  EXPECT_TRUE(trace.contains("handleOperStatusOrDeviceName( Ethernet1 )"));
  EXPECT_TRUE(trace.contains("doSyncIntfStatus( Ethernet1 )"));
}

TEST_F(OperStateSmTest, InterfaceWithoutLocalStatusOrCachedSocketUsesALocalDefaultSocket) {
  auto sm = start();  // no namespaces known: nothing cached
  dir->intfStatusIs(status("Ethernet7", "et7", Interface::intfOperUp));
  ASSERT_EQ(fake.count(Kind::socketAt), 1u);
  EXPECT_EQ(fake.calls(Kind::socketAt)[0].text, "default");
  EXPECT_EQ(fake.count(Kind::close), 1u);
  EXPECT_EQ(fake.operStateRequests().size(), 1u);
}

TEST_F(OperStateSmTest, ReplacingAndRemovingStatuses) {
  netNs->namespaceIs(NamespaceName("default"), 1);
  auto sm = start();
  auto first = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(first);
  auto reactor = sm->intfStatus(IntfId("Ethernet1"));
  ASSERT_TRUE(reactor);

  // A new entity under the same id rebinds the same reactor and resyncs from the new entity.
  auto second = status("Ethernet1", "et9", Interface::intfOperDown);
  dir->intfStatusIs(second);
  EXPECT_EQ(sm->intfStatus(IntfId("Ethernet1")), reactor);
  EXPECT_EQ(reactor->notifier(), second);
  first->operStatusIs(Interface::intfOperDown);  // the old entity is no longer watched
  ASSERT_EQ(fake.operStateRequests().size(), 2u);
  EXPECT_EQ(fake.operStateRequests()[1].deviceName, "et9");

  // Removal deletes the reactor and sends nothing; later changes of the entity reach nobody.
  dir->intfStatusDel(IntfId("Ethernet1"));
  EXPECT_FALSE(sm->intfStatus(IntfId("Ethernet1")));
  second->operStatusIs(Interface::intfOperUp);
  EXPECT_EQ(fake.operStateRequests().size(), 2u);

  // A local status for an interface without status syncs nothing.
  localDir->intfStatusLocalIs(local("Ethernet1", "blue"));
  EXPECT_EQ(fake.operStateRequests().size(), 2u);
}

TEST_F(OperStateSmTest, AReactorRemovedFromItsCollectionIsRetiredAtOnce) {
  auto sm = start();
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  auto l = local("Ethernet1", "blue");
  dir->intfStatusIs(st);
  localDir->intfStatusLocalIs(l);
  // References held outside the state machine, as a test or a debugger would.
  Vorn::Ptr<KernelOperState::IntfStatusOperStatusSm::VornIntfStatus> heldStatus = sm->intfStatus(IntfId("Ethernet1"));
  Vorn::Ptr<KernelOperState::IntfStatusOperStatusSm::VornIntfStatusLocal> heldLocal =
      sm->intfStatusLocal(IntfId("Ethernet1"));
  dir->intfStatusDel(IntfId("Ethernet1"));
  localDir->intfStatusLocalDel(IntfId("Ethernet1"));
  for (Vorn::BaseNotifiee * held : std::initializer_list<Vorn::BaseNotifiee *>{heldStatus.ptr(), heldLocal.ptr()}) {
    EXPECT_TRUE(held->vornMarkedForDeletion());
    EXPECT_FALSE(held->isRegisteredNotifiee());
  }
  EXPECT_FALSE(heldStatus->notifier());
  EXPECT_FALSE(heldLocal->notifier());
  EXPECT_EQ(st->notifiees(), 0u);
  EXPECT_EQ(l->notifiees(), 0u);

  // Put back and then destroyed with the state machine: the same for every reactor it held.
  dir->intfStatusIs(st);
  heldStatus = sm->intfStatus(IntfId("Ethernet1"));
  root->intfStatusOperStatusSmDel();
  sm = nullptr;
  EXPECT_FALSE(heldStatus->notifier());
  EXPECT_EQ(st->notifiees(), 0u);
  trace.clear();
  fake.clearCalls();
  st->operStatusIs(Interface::intfOperDown);
  l->netNsNameIs(NamespaceName("red"));
  EXPECT_EQ(trace.size(), 0u) << trace.dump();
  EXPECT_TRUE(fake.calls().empty());
}

TEST_F(OperStateSmTest, NamespacesComingAndGoing) {
  auto sm = start();
  netNs->namespaceIs(NamespaceName("blue"), 10);
  int sd1 = kosm->nsNetlinkSockFd(NamespaceName("blue"));
  EXPECT_GE(sd1, FakePlatform::firstFakeDescriptor);

  // Notified present again: a fresh socket is cached and the first one stays open, uncached.
  netNs->netNsByNameNotify(NamespaceName("blue"));
  int sd2 = kosm->nsNetlinkSockFd(NamespaceName("blue"));
  EXPECT_NE(sd2, sd1);
  EXPECT_EQ(fake.openDescriptors(), (std::vector<int>{sd1, sd2}));

  // Gone: the cached socket is closed and forgotten.
  netNs->namespaceDel(NamespaceName("blue"));
  EXPECT_FALSE(kosm->nsNetlinkSockFdHas(NamespaceName("blue")));
  EXPECT_EQ(fake.openDescriptors(), (std::vector<int>{sd1}));
  EXPECT_TRUE(trace.contains("handleNsByName closing netlink socket: " + std::to_string(sd2)));

  // Gone without a cached socket: only traced.
  trace.clear();
  netNs->netNsByNameNotify(NamespaceName("never"));
  EXPECT_EQ(trace.texts("KernelOperState"),
            (std::vector<std::string>{"IntfStatusOperStatusSm::handleNsByName(name=never)",
                                      "No cached netlink socket fd found. Just return"}));

  // A namespace appearing does not resync the interfaces in it.
  EXPECT_TRUE(fake.operStateRequests().empty());
}

TEST_F(OperStateSmTest, SocketFailureInANamedNamespaceIsReportedAndSkipped) {
  auto sm = start();
  fake.failNext(Kind::socketAt, ENOENT);
  testing::internal::CaptureStderr();
  netNs->namespaceIs(NamespaceName("blue"), 10);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("socket: ") + strerror(ENOENT) + "\n");
  EXPECT_FALSE(kosm->nsNetlinkSockFdHas(NamespaceName("blue")));
  EXPECT_EQ(fake.count(Kind::bind), 0u);
}

// A trace sink that writes nowhere and leaves errno changed, as a full disk would.
class ErrnoClobberingSink : public Brisklog::Sink {
 public:
  ErrnoClobberingSink() : previous_(Brisklog::sink()) { Brisklog::sinkIs(this); }
  ~ErrnoClobberingSink() override { Brisklog::sinkIs(previous_); }
  void lineIs(Brisklog::Line const &) override { errno = ENOSPC; }

 private:
  Brisklog::Sink * previous_;
};

TEST_F(OperStateSmTest, ErrnoOfAFailedSocketSurvivesTheTracesBeforePerror) {
  auto sm = start();
  ErrnoClobberingSink sink;
  fake.failNext(Kind::socketAt, ENOENT);
  testing::internal::CaptureStderr();
  netNs->namespaceIs(NamespaceName("blue"), 10);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("socket: ") + strerror(ENOENT) + "\n");
  fake.failNext(Kind::socketAt, ENOENT);
  testing::internal::CaptureStderr();
  kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("red"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("socket: ") + strerror(ENOENT) + "\n");
}

TEST_F(OperStateSmTest, FactoryFormBuildsAStartedStateMachine) {
  netNs->namespaceIs(NamespaceName("default"), 1);
  dir->intfStatusIs(status("Ethernet1", "et1", Interface::intfOperUp));
  auto sm = KernelOperState::IntfStatusOperStatusSmIs(dir, localDir, kosm, netNs);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(sm->kosm(), kosm);
  EXPECT_EQ(fake.operStateRequests().size(), 1u);
}

TEST_F(OperStateSmTest, RootReusesTheStateMachineOnlyForTheSameFourInputs) {
  netNs->namespaceIs(NamespaceName("default"), 1);
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(st);
  auto sm = start();
  EXPECT_EQ(fake.operStateRequests().size(), 1u);

  EXPECT_EQ(start(), sm);  // same four: kept, no second start-up sync
  EXPECT_EQ(fake.operStateRequests().size(), 1u);
  EXPECT_EQ(trace.count("handleInitialized"), 1u);

  auto otherLocal = root->intfStatusLocalDirIs("other");
  auto sm2 = root->intfStatusOperStatusSmIs(dir, otherLocal, kosm, netNs);
  EXPECT_NE(sm2, sm);
  EXPECT_EQ(root->intfStatusOperStatusSm(), sm2);
  EXPECT_EQ(fake.operStateRequests().size(), 2u);  // the new one ran its own start-up sync
  EXPECT_EQ(trace.count("handleInitialized"), 2u);

  // The replaced machine is a zombie once released: its reactors no longer react.
  sm = nullptr;
  fake.clearCalls();
  st->operStatusIs(Interface::intfOperDown);
  EXPECT_EQ(fake.operStateRequests().size(), 1u);  // from sm2 only
}

TEST_F(OperStateSmTest, DestroyingTheStateMachineLeavesCachedSocketsOpen) {
  netNs->namespaceIs(NamespaceName("blue"), 10);
  auto st = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(st);
  start();
  auto open = fake.openDescriptors();
  root->intfStatusOperStatusSmDel();
  EXPECT_EQ(fake.openDescriptors(), open);
  fake.clearCalls();
  st->operStatusIs(Interface::intfOperDown);
  netNs->namespaceDel(NamespaceName("blue"));
  EXPECT_TRUE(fake.calls().empty());
}

TEST_F(OperStateSmTest, NullMutatorArgumentsAreRangeErrors) {
  auto sm = start();
  auto expectText = [](auto fn, std::string const & text) {
    try {
      fn();
      ADD_FAILURE() << "no exception for " << text;
    } catch (Vorn::RangeException const & e) {
      EXPECT_EQ(e.what(), text);
    }
  };
  expectText([&] { sm->intfStatusIs(nullptr); },
             "null _intfStatus parameter to mutator for KernelOperState::IntfStatusOperStatusSm::intfStatus not "
             "allowed\"");
  expectText([&] { sm->intfStatusLocalIs(nullptr); },
             "null _intfStatusLocal parameter to mutator for KernelOperState::IntfStatusOperStatusSm::intfStatusLocal "
             "not allowed\"");
  expectText([&] { dir->intfStatusIs(nullptr); },
             "null _intfStatus parameter to mutator for KernelOperState::IntfStatusDir::intfStatus not allowed\"");
  expectText([&] { localDir->intfStatusLocalIs(nullptr); },
             "null _intfStatusLocal parameter to mutator for KernelOperState::IntfStatusLocalDir::intfStatusLocal not "
             "allowed\"");
  EXPECT_EQ(dir->intfStatuss(), 0u);
  EXPECT_EQ(sm->intfStatuss(), 0u);
}

using OperStateSmDeathTest = OperStateSmTest;

TEST_F(OperStateSmDeathTest, FatalPaths) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto sm = start();
  EXPECT_EXIT(
      {
        fake.failNext(Kind::socketAt, EMFILE);
        netNs->namespaceIs(NamespaceName("default"), 1);
      },
      testing::ExitedWithCode(1), "^socket: ");
  EXPECT_EXIT(
      {
        fake.failNext(Kind::bind, EINVAL);
        netNs->namespaceIs(NamespaceName("blue"), 2);
      },
      testing::ExitedWithCode(1), "^bind: ");
  EXPECT_EXIT(
      {
        ErrnoClobberingSink sink;
        fake.failNext(Kind::bind, EACCES);
        netNs->namespaceIs(NamespaceName("green"), 3);
      },
      testing::ExitedWithCode(1), "^bind: Permission denied");
  EXPECT_EXIT(
      {
        ErrnoClobberingSink sink;
        fake.failNext(Kind::bind, EACCES);
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("red"));
      },
      testing::ExitedWithCode(1), "^bind: Permission denied");
  EXPECT_DEATH(
      {
        kosm->nsNetlinkSockFdIs(NamespaceName("gone"), -5);
        netNs->netNsByNameNotify(NamespaceName("gone"));
      },
      "Failed\\(sd >= 0\\)  sd: -5 ns name : gone\n(.|\n)*assertion \"!\"sd >= 0\"\" failed");
}

TEST_F(OperStateSmDeathTest, SyncWithoutDirectoriesIsAProgramError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Vorn::Ptr<KernelOperState::IntfStatusOperStatusSm> noLocal = root->intfStatusOperStatusSmIs(dir, nullptr, kosm, netNs);
  EXPECT_DEATH(noLocal->doSyncIntfStatus(IntfId("Ethernet1")), "assertion \"intfStatusLocalDir\\(\\)\" failed");
  Vorn::Ptr<KernelOperState::IntfStatusOperStatusSm> noDir =
      root->intfStatusOperStatusSmIs(nullptr, localDir, kosm, netNs);
  EXPECT_DEATH(noDir->doSyncIntfStatus(IntfId("Ethernet1")), "assertion \"intfStatusDir\\(\\)\" failed");
}

TEST_F(OperStateSmTest, RootNamedChildren) {
  EXPECT_EQ(root->intfStatusDirIs("intfStatus"), dir);  // same name: same object
  EXPECT_EQ(dir->parent(), root);
  dir->intfStatusIs(status("Ethernet1", "et1", Interface::intfOperUp));
  auto other = root->intfStatusDirIs("other");
  EXPECT_NE(other, dir);
  EXPECT_EQ(other->intfStatuss(), 0u);
  EXPECT_EQ(root->intfStatusDir(), other);
  EXPECT_EQ(root->kosmIs(), kosm);  // one manager
  EXPECT_FALSE(root->hasBackupSupport());

  auto const * record = Intfsm::typeRegistry().type("KernelOperState::Root");
  ASSERT_NE(record, nullptr);
  ASSERT_NE(record->factory(), nullptr);
  auto made = record->factory()("viaRegistry");
  EXPECT_EQ(made->name(), "viaRegistry");
  EXPECT_STREQ(made->vornTypeName(), "KernelOperState::Root");
  EXPECT_EQ(record->attributes().front(), "kosm");
  EXPECT_EQ(Intfsm::typeRegistry().type("KernelOperState::KernelOperStateManager")->attributes(),
            (std::vector<Vorn::String>{"nsNetlinkSockFd", "doSetOperState", "doSetOperStateInNs", "netlinkSocket",
                                       "operStatus"}));
  auto viaDir = Intfsm::typeRegistry().newEntityForDir("KernelOperState::IntfStatusLocalDir", "locals", root);
  EXPECT_STREQ(viaDir->vornTypeName(), "KernelOperState::IntfStatusLocalDir");
  EXPECT_EQ(viaDir->parent(), root);
}

TEST_F(OperStateSmTest, DirectoryNotifications) {
  struct Watcher : KernelOperState::IntfStatusDir::NotifieeConst {
    void onIntfStatus(IntfId const & id) override { keys.push_back(id.name().stdString()); }
    void onIntfStatusvornImmediate() override { keys.push_back("*"); }
    std::vector<std::string> keys;
  };
  Vorn::Ptr<Watcher> w = new Watcher;
  w->notifierIs(dir);
  auto a = status("Ethernet1", "et1", Interface::intfOperUp);
  dir->intfStatusIs(a);
  dir->intfStatusIs(a);  // same entity: nothing
  dir->intfStatusIs(status("Ethernet1", "et1", Interface::intfOperUp));  // replaced: notified once
  dir->intfStatusNotify(IntfId("Absent"));
  dir->intfStatusDelAll();
  EXPECT_EQ(w->keys, (std::vector<std::string>{"*", "Ethernet1", "Ethernet1", "Absent", "Ethernet1"}));
}

}  // namespace
