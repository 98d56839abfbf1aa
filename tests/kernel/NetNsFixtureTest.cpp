// The namespace fixture itself: what it makes goes away on every path, including a process that
// aborts or exits in the middle of a test, and leftovers of dead processes are swept.
#include "tests/support/NetNs.h"

#include <gtest/gtest.h>
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

TEST_F(NetNsFixtureKernel, DestructionRemovesEverything) {
  std::string a, b;
  {
    NetNsFixture own;
    a = own.namespaceNew();
    b = own.namespaceNew();
    EXPECT_EQ(a.rfind(IntfsmTest::netNsPrefix + std::to_string(::getpid()) + "-", 0), 0u) << a;
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

TEST_F(NetNsFixtureKernelDeathTest, AbortAndExitStillRemoveTheNamespaces) {
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
}

}  // namespace
