// The namespace fixture itself: what it makes is really there, and it goes away on every path,
// including a process that aborts or exits in the middle of a test.
#include "tests/support/NetNs.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

using IntfsmTest::NetNsFixture;
using IntfsmTest::prefixedNamespaces;

bool exists(std::string const & ns) {
  auto const all = prefixedNamespaces();
  return std::find(all.begin(), all.end(), ns) != all.end();
}

// A pid that no process has: a child that has already been reaped.
pid_t deadPid() {
  pid_t const child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

class NetNsFixtureKernel : public IntfsmTest::NetNsTest {};

TEST_F(NetNsFixtureKernel, VethPairAcrossNamespaces) {
  std::string const left = netns().namespaceNew();
  std::string const right = netns().namespaceNew();
  EXPECT_EQ(left.rfind(IntfsmTest::netNsPrefix + std::to_string(::getpid()) + "-", 0), 0u) << left;
  EXPECT_NE(left, right);

  netns().vethPairNew(left, "va0", "vb0", right);
  EXPECT_TRUE(netns().link(left, "va0").has_value());
  EXPECT_FALSE(netns().link(left, "vb0").has_value());
  EXPECT_TRUE(netns().link(right, "vb0").has_value());
  EXPECT_FALSE(netns().link("", "va0").has_value()) << "a test device leaked into the default namespace";

  auto const down = netns().link(left, "va0");
  EXPECT_EQ(down->flags & IFF_UP, 0u);
  EXPECT_EQ(down->operState, IF_OPER_DOWN);
  EXPECT_EQ(down->name, "va0");
  EXPECT_GT(down->ifindex, 1);

  netns().linkUp(left, "va0");
  netns().linkUp(right, "vb0");
  EXPECT_TRUE(netns().waitForOperState(left, "va0", IF_OPER_UP));
  EXPECT_NE(netns().link(left, "va0")->flags & IFF_RUNNING, 0u);
  EXPECT_FALSE(netns().waitForOperState(left, "va9", IF_OPER_UP, std::chrono::milliseconds(0))) << "no such device";
}

TEST_F(NetNsFixtureKernel, RenameMoveDelete) {
  std::string const ns = netns().namespaceNew();
  std::string const other = netns().namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  int const ifindex = netns().link(ns, "va0")->ifindex;

  netns().linkRename(ns, "va0", "va9");
  EXPECT_FALSE(netns().link(ns, "va0").has_value());
  EXPECT_EQ(netns().link(ns, "va9")->ifindex, ifindex);

  netns().linkMove(ns, "va9", other);
  EXPECT_FALSE(netns().link(ns, "va9").has_value());
  EXPECT_TRUE(netns().link(other, "va9").has_value());

  netns().linkDel(other, "va9");
  EXPECT_FALSE(netns().link(other, "va9").has_value());
  EXPECT_FALSE(netns().link(ns, "vb0").has_value()) << "deleting one end of a veth deletes both";
}

TEST_F(NetNsFixtureKernel, CommandsRunInsideTheNamespace) {
  std::string const ns = netns().namespaceNew();
  netns().vethPairNew(ns, "va0", "vb0");
  auto const r = netns().runIn(ns, "cat /sys/class/net/va0/ifindex; exit 3");
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.output, std::to_string(netns().link(ns, "va0")->ifindex) + "\n");
  EXPECT_THROW(netns().linkUp(ns, "nosuch0"), std::runtime_error);
}

TEST_F(NetNsFixtureKernel, DestructionRemovesEverything) {
  std::string a, b;
  {
    NetNsFixture own;
    a = own.namespaceNew();
    b = own.namespaceNew();
    own.vethPairNew(a, "va0", "vb0", b);
    EXPECT_TRUE(exists(a));
    own.namespaceDel(a);
    EXPECT_FALSE(exists(a));
    EXPECT_EQ(own.namespaces(), std::vector<std::string>{b});
  }
  EXPECT_FALSE(exists(b));
}

TEST_F(NetNsFixtureKernel, LeftoversOfDeadProcessesAreSwept) {
  std::string const stale = IntfsmTest::netNsPrefix + std::to_string(deadPid()) + "-0";
  ASSERT_EQ(IntfsmTest::runCommand({"ip", "netns", "add", stale}).status, 0);
  std::string const mine = netns().namespaceNew();
  { NetNsFixture another; }
  EXPECT_FALSE(exists(stale));
  EXPECT_TRUE(exists(mine)) << "a live process's namespaces are not swept";
}

using NetNsFixtureKernelDeathTest = NetNsFixtureKernel;

TEST_F(NetNsFixtureKernelDeathTest, AbortExitAndTerminationStillRemoveTheNamespaces) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Checked after each end: the next child's fixture would sweep what an earlier one left.
  auto const before = prefixedNamespaces();
  EXPECT_DEATH(
      {
        NetNsFixture dying;
        dying.vethPairNew(dying.namespaceNew(), "va0", "vb0");
        std::abort();
      },
      "");
  EXPECT_EQ(prefixedNamespaces(), before) << "after abort";
  EXPECT_EXIT(
      {
        NetNsFixture leaving;
        leaving.namespaceNew();
        std::exit(3);
      },
      ::testing::ExitedWithCode(3), "");
  EXPECT_EQ(prefixedNamespaces(), before) << "after exit";
  EXPECT_EXIT(
      {
        NetNsFixture terminated;
        terminated.namespaceNew();
        ::raise(SIGTERM);
      },
      ::testing::KilledBySignal(SIGTERM), "");
  EXPECT_EQ(prefixedNamespaces(), before) << "after SIGTERM";
}

}  // namespace
