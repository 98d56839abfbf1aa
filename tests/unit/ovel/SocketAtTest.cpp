// socketAt's steps, with the kernel replaced by the fake platform: which files it opens, how it enters
// and leaves the namespace, and that only the new socket stays open. Failing steps are in the fault table.
#include "intfsm/foundation/ovel/SocketAt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "tests/support/FakePlatform.h"

namespace {

using IntfsmTest::FakePlatform;
using Kind = FakePlatform::Kind;

// The fake platform with socketAt's real body, so that its inner calls are recorded.
class SocketAtBody : public ::testing::Test {
 protected:
  SocketAtBody() {
    fake.behaviour().socketAt = [](int d, int t, int p, char const * ns) {
      return Ovel::socketAtThrough(Platform::calls(), d, t, p, ns);
    };
    fake.namespaceIs("blue");
  }
  // The kinds of the calls recorded after the outer socketAt, space-separated; the record starts over.
  std::string innerCalls() {
    std::string kinds;
    for (auto const & c : fake.calls()) {
      if (c.kind != Kind::socketAt) kinds += std::string(kinds.empty() ? "" : " ") + IntfsmTest::kindName(c.kind);
    }
    fake.clearCalls();
    return kinds;
  }
  // socketAt in `ns` that is expected to fail; its errno.
  int failure(char const * ns) {
    errno = 0;
    EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, ns), 0);
    return errno;
  }

  FakePlatform fake;
};

TEST_F(SocketAtBody, TheDefaultNamespaceGetsAPlainCloseOnExecSocket) {
  for (char const * name : {static_cast<char const *>(nullptr), "", "default"}) {
    EXPECT_TRUE(fake.isFakeDescriptor(Ovel::socketAt(AF_PACKET, SOCK_RAW, 0x2900, name)));
    auto const c = fake.calls(Kind::socket).at(0);
    EXPECT_EQ(std::vector<long>({c.a, c.b, c.c}), std::vector<long>({AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0x2900}));
    EXPECT_EQ(innerCalls(), "socket");
  }
  for (char const * name : {"Default", "default ", "blue"}) EXPECT_FALSE(Ovel::isDefaultNsName(name)) << name;
}

TEST_F(SocketAtBody, ANamedNamespaceIsEnteredAndLeftAroundTheSocket) {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
  auto const opens = fake.calls(Kind::open);
  auto const setns = fake.calls(Kind::setns);
  EXPECT_EQ(std::tuple(opens.at(0).text, opens.at(1).text), std::tuple("/run/netns/blue", "/proc/thread-self/ns/net"));
  for (int i : {0, 1}) {  // each entered as it was opened
    EXPECT_EQ(std::tuple(opens[i].a, setns.at(i).fd, setns[i].a), std::tuple(O_RDONLY | O_CLOEXEC, int(opens[i].result), CLONE_NEWNET));
  }
  EXPECT_EQ(fake.calls(Kind::socket).at(0).b, SOCK_DGRAM | SOCK_CLOEXEC);
  EXPECT_EQ(innerCalls(), "open open setns socket setns close close");
  EXPECT_EQ(fake.openDescriptors(), std::vector<int>{sd});  // only the new socket stays open
}

TEST_F(SocketAtBody, BadNamesFailWithEinvalBeforeAnyCall) {
  std::string const longest(Ovel::maxNsNameBytes, 'n');
  for (std::string const & bad : {longest + "n", std::string("a/b"), std::string("/"), std::string("."), std::string("..")}) {
    EXPECT_EQ(failure(bad.c_str()), EINVAL) << bad;
    EXPECT_EQ(innerCalls(), "") << bad;
  }
  // The longest name accepted is looked up like any other, and names that only look special are ordinary.
  EXPECT_EQ(failure(longest.c_str()), ENOENT);  // looked up
  EXPECT_EQ(fake.calls(Kind::open).at(0).text, "/run/netns/" + longest);
  fake.namespaceIs("...");
  EXPECT_GE(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "..."), 0);
}

using SocketAtBodyDeathTest = SocketAtBody;

TEST_F(SocketAtBodyDeathTest, FailingToReturnAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        fake.behaviour().setns = [entries = 0](int, int) mutable { return ++entries == 1 ? 0 : (errno = EPERM, -1); };
        Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
      },
      "Ovel::socketAt: cannot return to the original network namespace after entering \"blue\": "
      "Operation not permitted");
}

}  // namespace
