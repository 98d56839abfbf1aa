// socketAt's steps and failure paths, with the kernel replaced by the fake platform: which files it
// opens, how it enters and leaves the namespace, and that every descriptor it opened is closed.
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
    fake.behaviour().socketAt = [](int d, int t, int p, char const * ns) { return Ovel::socketAtThrough(Platform::calls(), d, t, p, ns); };
    fake.namespaceIs("blue");
  }
  // The kinds of the recorded calls after the outer socketAt, space-separated.
  std::string innerCalls() const {
    std::string kinds;
    for (auto const & c : fake.calls()) {
      if (c.kind != Kind::socketAt) kinds += std::string(kinds.empty() ? "" : " ") + IntfsmTest::kindName(c.kind);
    }
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

TEST_F(SocketAtBody, DefaultNamespaceOpensAPlainCloseOnExecSocket) {
  for (char const * name : {static_cast<char const *>(nullptr), "", "default"}) {
    SCOPED_TRACE(name ? name : "(null)");
    EXPECT_TRUE(Ovel::isDefaultNsName(name));
    fake.clearCalls();
    EXPECT_TRUE(fake.isFakeDescriptor(Ovel::socketAt(AF_PACKET, SOCK_RAW, 0x2900, name)));
    EXPECT_EQ(innerCalls(), "socket");
    auto const c = fake.calls(Kind::socket).at(0);
    EXPECT_EQ(std::vector<long>({c.a, c.b, c.c}), std::vector<long>({AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0x2900}));
  }
  for (char const * name : {"Default", "default ", "blue"}) EXPECT_FALSE(Ovel::isDefaultNsName(name)) << name;
}

TEST_F(SocketAtBody, NamedNamespaceIsEnteredAndLeftAroundTheSocket) {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
  ASSERT_TRUE(fake.isFakeDescriptor(sd));
  EXPECT_EQ(innerCalls(), "open open setns socket setns close close");

  auto const opens = fake.calls(Kind::open);
  EXPECT_EQ(opens[0].text, "/run/netns/blue");
  EXPECT_EQ(opens[1].text, "/proc/thread-self/ns/net");
  auto const setns = fake.calls(Kind::setns);
  for (int i : {0, 1}) {
    EXPECT_EQ(opens[i].a, O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(setns[i].fd, opens[i].result);
    EXPECT_EQ(setns[i].a, CLONE_NEWNET);
  }
  EXPECT_EQ(fake.calls(Kind::socket).at(0).b, SOCK_DGRAM | SOCK_CLOEXEC);
  EXPECT_EQ(fake.openDescriptors(), std::vector<int>{sd});  // only the new socket stays open
}

TEST_F(SocketAtBody, EveryFailedStepClosesWhatItOpenedAndKeepsItsErrno) {
  // Closes that disturb errno must not hide the failed step's error.
  fake.behaviour().close = [inner = fake.behaviour().close](int fd) {
    int const r = inner(fd);
    errno = EBADF;
    return r;
  };
  EXPECT_EQ(failure("green"), ENOENT);
  EXPECT_EQ(innerCalls(), "open");
  EXPECT_EQ(fake.calls(Kind::open).at(0).text, "/run/netns/green");
  EXPECT_TRUE(fake.openDescriptors().empty());

  fake.clearCalls();
  fake.failNext(Kind::setns, EPERM);
  EXPECT_EQ(failure("blue"), EPERM);
  EXPECT_EQ(innerCalls(), "open open setns close close");
  EXPECT_TRUE(fake.openDescriptors().empty());

  fake.clearCalls();
  fake.failNext(Kind::socket, EAFNOSUPPORT);
  EXPECT_EQ(failure("blue"), EAFNOSUPPORT);
  EXPECT_EQ(innerCalls(), "open open setns socket setns close close");
  EXPECT_EQ(fake.calls(Kind::setns).at(1).fd, fake.calls(Kind::open).at(1).result);
  EXPECT_TRUE(fake.openDescriptors().empty());

  fake.clearCalls();
  fake.fileDel("/proc/thread-self/ns/net");
  EXPECT_EQ(failure("blue"), ENOENT);
  EXPECT_EQ(innerCalls(), "open open close");
  EXPECT_TRUE(fake.openDescriptors().empty());
}

TEST_F(SocketAtBody, BadNamesFailWithEinvalBeforeAnyCall) {
  std::string const longest(Ovel::maxNsNameBytes, 'n');
  for (std::string const & bad : {longest + "n", std::string("a/b"), std::string("/"), std::string("."), std::string("..")}) {
    fake.clearCalls();
    EXPECT_EQ(failure(bad.c_str()), EINVAL) << bad;
    EXPECT_EQ(innerCalls(), "") << bad;
  }
  // The longest name accepted is looked up like any other, and names that only look special are ordinary.
  fake.clearCalls();
  EXPECT_EQ(failure(longest.c_str()), ENOENT);
  EXPECT_EQ(fake.calls(Kind::open).at(0).text, "/run/netns/" + longest);
  fake.namespaceIs("...");
  EXPECT_GE(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "..."), 0);
}

using SocketAtBodyDeathTest = SocketAtBody;

TEST_F(SocketAtBodyDeathTest, FailingToReturnAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        int entries = 0;
        fake.behaviour().setns = [&entries](int, int) {
          if (++entries == 1) return 0;
          errno = EPERM;
          return -1;
        };
        Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
      },
      "Ovel::socketAt: cannot return to the original network namespace after entering \"blue\": "
      "Operation not permitted");
}

}  // namespace
