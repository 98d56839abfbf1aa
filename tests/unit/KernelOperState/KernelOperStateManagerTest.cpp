// The netlink oper-state manager with the kernel replaced: which sockets it opens, binds and closes,
// which requests it sends, and how it fails.
#include <gtest/gtest.h>

#include <cerrno>

#include "intfsm/KernelOperState/KernelOperStateManager.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/TraceCapture.h"

using IntfsmTest::FakePlatform;
using Kind = IntfsmTest::FakePlatform::Kind;
using KernelOperState::KernelOperStateManager;
using Interface::IntfOperStatus;
using Ovel::NamespaceName;

namespace {

class KernelOperStateManagerTest : public ::testing::Test {
 protected:
  FakePlatform fake;
  TraceCapture trace{"KernelOperState"};
  Vorn::Ptr<KernelOperStateManager> kosm = new KernelOperStateManager;
};

TEST_F(KernelOperStateManagerTest, MapsEachStatusToTheKernelValue) {
  struct Case {
    int status;
    int sent;  // -1: nothing sent
  } const cases[] = {{0, -1}, {1, 6}, {2, 5}, {3, -1}, {4, -1}, {5, 5}, {6, 5}, {7, 5}, {8, -1}};
  for (auto const & c : cases) {
    fake.clearCalls();
    trace.clear();
    kosm->doSetOperStateInNs("et1", IntfOperStatus(c.status), NamespaceName("default"));
    auto requests = fake.operStateRequests();
    if (c.sent < 0) {
      EXPECT_TRUE(requests.empty()) << c.status;
      std::ostringstream expected;
      expected << "unknown operStatus: " << IntfOperStatus(c.status);
      EXPECT_TRUE(trace.contains(expected.str())) << trace.dump();
      EXPECT_EQ(trace.texts("KernelOperState", 0), std::vector<std::string>{expected.str()});
    } else {
      ASSERT_EQ(requests.size(), 1u) << c.status;
      EXPECT_EQ(requests[0].deviceName, "et1");
      EXPECT_EQ(requests[0].tag, 111);
      EXPECT_EQ(requests[0].operState, c.sent) << c.status;
    }
    // Either way the local socket was opened in the namespace, bound and closed again.
    EXPECT_EQ(fake.count(Kind::socketAt), 1u);
    EXPECT_EQ(fake.count(Kind::bind), 1u);
    EXPECT_EQ(fake.count(Kind::close), 1u);
    EXPECT_TRUE(fake.openDescriptors().empty());
  }
}

TEST_F(KernelOperStateManagerTest, LocalSocketIsARouteNetlinkSocketBoundWithKernelChosenPid) {
  kosm->doSetOperStateInNs("veth1", Interface::intfOperDormant, NamespaceName("blue"));
  auto opened = fake.calls(Kind::socketAt);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].a, 16);  // AF_NETLINK
  EXPECT_EQ(opened[0].b, 2);   // SOCK_DGRAM
  EXPECT_EQ(opened[0].c, 0);   // NETLINK_ROUTE
  EXPECT_EQ(opened[0].text, "blue");
  auto binds = fake.calls(Kind::bind);
  ASSERT_EQ(binds.size(), 1u);
  EXPECT_EQ(binds[0].fd, opened[0].result);
  ASSERT_EQ(binds[0].data.size(), 12u);
  EXPECT_EQ(binds[0].data, std::string("\x10\0\0\0\0\0\0\0\0\0\0\0", 12));  // family 16, pid 0, groups 0
  EXPECT_EQ(fake.operStateRequests()[0].sd, opened[0].result);
  EXPECT_EQ(fake.calls(Kind::close)[0].fd, opened[0].result);
  EXPECT_EQ(trace.texts("KernelOperState"),
            (std::vector<std::string>{"doSetOperStateInNs( veth1, intfOperDormant, blue )",
                                      "creating local netlink socket",
                                      "doSetOperStateInNs sd: " + std::to_string(opened[0].result)}));
}

TEST_F(KernelOperStateManagerTest, EmptyDeviceNameSendsNothingButStillUsesALocalSocket) {
  kosm->doSetOperStateInNs("", Interface::intfOperUp, NamespaceName("default"));
  EXPECT_TRUE(fake.operStateRequests().empty());
  EXPECT_EQ(fake.count(Kind::socketAt), 1u);
  EXPECT_EQ(fake.count(Kind::bind), 1u);
  EXPECT_EQ(fake.count(Kind::close), 1u);
  EXPECT_EQ(trace.texts("KernelOperState", 1),
            std::vector<std::string>{"not sending IFLA_OPERSTATE message because deviceName is empty"});
}

TEST_F(KernelOperStateManagerTest, CachedSocketIsUsedAsItIs) {
  kosm->nsNetlinkSockFdIs(NamespaceName("blue"), 77);
  kosm->doSetOperStateInNs("veth1", Interface::intfOperUp, NamespaceName("blue"));
  EXPECT_EQ(fake.count(Kind::socketAt), 0u);
  EXPECT_EQ(fake.count(Kind::bind), 0u);
  EXPECT_EQ(fake.count(Kind::close), 0u);
  ASSERT_EQ(fake.operStateRequests().size(), 1u);
  EXPECT_EQ(fake.operStateRequests()[0], (FakePlatform::OperStateRequest{77, "veth1", 111, 6}));
  EXPECT_FALSE(trace.contains("creating local netlink socket"));
}

TEST_F(KernelOperStateManagerTest, DoSetOperStateAlwaysTargetsTheDefaultNamespace) {
  kosm->nsNetlinkSockFdIs(NamespaceName("blue"), 77);
  kosm->doSetOperState("et2", Interface::intfOperLowerLayerDown);
  auto opened = fake.calls(Kind::socketAt);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].text, Ovel::DEFAULT_NS);
  ASSERT_EQ(fake.operStateRequests().size(), 1u);
  EXPECT_EQ(fake.operStateRequests()[0].sd, opened[0].result);
  EXPECT_EQ(fake.operStateRequests()[0].operState, 5);
  EXPECT_EQ(trace.texts("KernelOperState").front(), "doSetOperState( et2, intfOperLowerLayerDown )");
}

TEST_F(KernelOperStateManagerTest, NoSocketInANamedNamespaceDropsTheRequest) {
  fake.failNext(Kind::socketAt, ENOENT);
  testing::internal::CaptureStderr();
  kosm->doSetOperStateInNs("veth1", Interface::intfOperUp, NamespaceName("gone"));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, std::string("socket: ") + strerror(ENOENT) + "\n");
  EXPECT_TRUE(fake.operStateRequests().empty());
  EXPECT_EQ(fake.count(Kind::bind), 0u);
  EXPECT_EQ(fake.count(Kind::close), 0u);
}

TEST_F(KernelOperStateManagerTest, CacheMutatorsNotifyAndNeverClose) {
  struct Watcher : KernelOperStateManager::NotifieeConst {
    void onNsNetlinkSockFd(NamespaceName const & ns) override { keys.push_back(ns.name().stdString()); }
    std::vector<std::string> keys;
  };
  Vorn::Ptr<Watcher> w = new Watcher;
  w->notifierIs(kosm);
  kosm->nsNetlinkSockFdIs(NamespaceName("a"), 5);
  kosm->nsNetlinkSockFdIs(NamespaceName("a"), 5);  // same value: nothing
  kosm->nsNetlinkSockFdIs(NamespaceName("b"), 6);
  EXPECT_EQ(kosm->nsNetlinkSockFd(NamespaceName("a")), 5);
  EXPECT_EQ(kosm->nsNetlinkSockFd(NamespaceName("zz")), 0);  // absent reads as 0
  kosm->nsNetlinkSockFdNotify(NamespaceName("a"));            // does nothing
  kosm->nsNetlinkSockFdDel(NamespaceName("a"));
  kosm->nsNetlinkSockFdDelAll();
  EXPECT_EQ(kosm->nsNetlinkSockFds(), 0u);
  EXPECT_EQ(w->keys, (std::vector<std::string>{"a", "b", "a", "b"}));
  EXPECT_EQ(fake.count(Kind::close), 0u);
  EXPECT_TRUE(kosm->name().empty());
}

using KernelOperStateManagerDeathTest = KernelOperStateManagerTest;

TEST_F(KernelOperStateManagerDeathTest, FatalPaths) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        fake.failNext(Kind::socketAt, EMFILE);
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("default"));
      },
      testing::ExitedWithCode(1), "^socket: ");
  EXPECT_EXIT(
      {
        fake.failNext(Kind::bind, EADDRINUSE);
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("blue"));
      },
      testing::ExitedWithCode(1), "^bind: ");
  EXPECT_EXIT(
      {
        fake.operStateResultIs(false, EBADF);  // the socket is broken
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("blue"));
      },
      testing::ExitedWithCode(1), "");
  EXPECT_DEATH(
      {
        kosm->nsNetlinkSockFdIs(NamespaceName("blue"), -3);
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("blue"));
      },
      "assertion \"localSocket == true\" failed");
}

TEST_F(KernelOperStateManagerDeathTest, BindErrorIsTracedBeforeExit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Brisklog::outputFileIs(nullptr);
  EXPECT_EXIT(
      {
        Brisklog::sinkIs(nullptr);  // the default sink writes to stderr, where the death test looks
        Brisklog::levelsIs("KernelOperState", Brisklog::allLevels);
        fake.failNext(Kind::bind, EACCES);
        kosm->doSetOperStateInNs("et1", Interface::intfOperUp, NamespaceName("blue"));
      },
      testing::ExitedWithCode(1), "Bind error: -1(.|\n)*bind: ");
}

}  // namespace
