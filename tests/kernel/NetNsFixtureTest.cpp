// The namespace fixture itself: what it makes goes away on every path, including a process that
// aborts or exits in the middle of a test, and leftovers of dead processes are swept.
#include "tests/support/NetNs.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

using IntfsmTest::NetNsFixture;
using IntfsmTest::prefixedNamespaces;

bool exists(std::string const & ns) {
  auto const all = prefixedNamespaces();
  return std::find(all.begin(), all.end(), ns) != all.end();
}

// Namespaces of the prefix whose process has ended: other test processes on this machine make and
// remove their own all the time, so only these say something about ours.
std::vector<std::string> leftovers() {
  std::vector<std::string> dead;
  for (std::string const & name : prefixedNamespaces()) {
    pid_t const pid = static_cast<pid_t>(std::atol(name.c_str() + std::strlen(IntfsmTest::netNsPrefix)));
    if (::kill(pid, 0) < 0 && errno == ESRCH) dead.push_back(name);
  }
  return dead;
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
    own.namespaceDel(a);
    EXPECT_FALSE(exists(a));
    EXPECT_EQ(own.namespaces(), std::vector<std::string>{b});
    EXPECT_EQ(own.namespaceNew(a), a);  // made again under its name, and removed like the others
    EXPECT_TRUE(exists(a));
  }
  EXPECT_FALSE(exists(a));
  EXPECT_FALSE(exists(b));
}

TEST_F(NetNsFixtureKernel, LeftoversOfDeadProcessesAreSwept) {
  pid_t const child = ::fork();  // a pid that no process has once it is reaped
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  std::string const stale = IntfsmTest::netNsPrefix + std::to_string(child) + "-0";
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
  EXPECT_DEATH(
      {
        NetNsFixture dying;
        dying.vethPairNew(dying.namespaceNew(), "va0", "vb0");
        std::abort();
      },
      "");
  EXPECT_EQ(leftovers(), std::vector<std::string>{}) << "after abort";
  EXPECT_EXIT(
      {
        NetNsFixture leaving;
        leaving.namespaceNew();
        std::exit(3);
      },
      ::testing::ExitedWithCode(3), "");
  EXPECT_EQ(leftovers(), std::vector<std::string>{}) << "after exit";
}

}  // namespace
