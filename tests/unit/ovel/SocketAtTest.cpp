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
    fake.behaviour().socketAt = Ovel::realPlatform().socketAt;
    fake.namespaceIs("blue");
  }

  // The kinds of the recorded calls after the outer socketAt, in order.
  std::vector<std::string> innerCalls() const {
    std::vector<std::string> kinds;
    for (auto const & c : fake.calls()) {
      if (c.kind != Kind::socketAt) kinds.push_back(IntfsmTest::kindName(c.kind));
    }
    return kinds;
  }

  FakePlatform fake;
};

TEST(SocketAt, GoesThroughTheLiveTable) {
  FakePlatform fake;
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
  EXPECT_EQ(sd, FakePlatform::firstFakeDescriptor);
  ASSERT_EQ(fake.count(Kind::socketAt), 1u);
  auto const & call = fake.calls().front();
  EXPECT_EQ(call.a, AF_NETLINK);
  EXPECT_EQ(call.b, SOCK_DGRAM);
  EXPECT_EQ(call.c, 0);
  EXPECT_EQ(call.text, "blue");
  EXPECT_EQ(call.result, sd);
}

TEST(SocketAt, FakeRestoresThePreviousTableWhenItDies) {
  {
    FakePlatform fake;
    EXPECT_EQ(Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, nullptr), FakePlatform::firstFakeDescriptor);
  }
  int const sd = Ovel::socketAt(AF_INET, SOCK_DGRAM, 0, nullptr);
  ASSERT_GE(sd, 0);
  EXPECT_LT(sd, FakePlatform::firstFakeDescriptor);
  EXPECT_EQ(Ovel::platform().close(sd), 0);
}

TEST(SocketAt, DefaultNamespaceNames) {
  EXPECT_TRUE(Ovel::isDefaultNsName(nullptr));
  EXPECT_TRUE(Ovel::isDefaultNsName(""));
  EXPECT_TRUE(Ovel::isDefaultNsName("default"));
  EXPECT_TRUE(Ovel::isDefaultNsName(Ovel::defaultNsText));
  EXPECT_FALSE(Ovel::isDefaultNsName("Default"));
  EXPECT_FALSE(Ovel::isDefaultNsName("default "));
  EXPECT_FALSE(Ovel::isDefaultNsName("blue"));
}

TEST_F(SocketAtBody, DefaultNamespaceOpensAPlainCloseOnExecSocket) {
  for (char const * name : {static_cast<char const *>(nullptr), "", "default"}) {
    fake.clearCalls();
    int const sd = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0x2900, name);
    EXPECT_TRUE(fake.isFakeDescriptor(sd));
    EXPECT_EQ(innerCalls(), std::vector<std::string>{"socket"}) << (name ? name : "(null)");
    auto const socketCall = fake.calls(Kind::socket).at(0);
    EXPECT_EQ(socketCall.a, AF_PACKET);
    EXPECT_EQ(socketCall.b, SOCK_RAW | SOCK_CLOEXEC);
    EXPECT_EQ(socketCall.c, 0x2900);
  }
}

TEST_F(SocketAtBody, NamedNamespaceIsEnteredAndLeftAroundTheSocket) {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue");
  ASSERT_TRUE(fake.isFakeDescriptor(sd));
  EXPECT_EQ(innerCalls(), (std::vector<std::string>{"open", "open", "setns", "socket", "setns", "close", "close"}));

  auto const opens = fake.calls(Kind::open);
  EXPECT_EQ(opens[0].text, "/run/netns/blue");
  EXPECT_EQ(opens[0].a, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(opens[1].text, "/proc/thread-self/ns/net");
  EXPECT_EQ(opens[1].a, O_RDONLY | O_CLOEXEC);
  int const target = static_cast<int>(opens[0].result);
  int const own = static_cast<int>(opens[1].result);

  auto const setns = fake.calls(Kind::setns);
  EXPECT_EQ(setns[0].fd, target);
  EXPECT_EQ(setns[0].a, CLONE_NEWNET);
  EXPECT_EQ(setns[1].fd, own);
  EXPECT_EQ(setns[1].a, CLONE_NEWNET);
  EXPECT_EQ(fake.calls(Kind::socket).at(0).b, SOCK_DGRAM | SOCK_CLOEXEC);

  // Only the new socket stays open.
  EXPECT_EQ(fake.openDescriptors(), std::vector<int>{sd});
}

TEST_F(SocketAtBody, MissingNamespaceFailsWithEnoentAndOpensNothing) {
  errno = 0;
  EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "green"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(innerCalls(), std::vector<std::string>{"open"});
  EXPECT_EQ(fake.calls(Kind::open).at(0).text, "/run/netns/green");
  EXPECT_TRUE(fake.openDescriptors().empty());
}

TEST_F(SocketAtBody, UnreadableOwnNamespaceClosesTheTarget) {
  fake.fileDel("/proc/thread-self/ns/net");
  EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(innerCalls(), (std::vector<std::string>{"open", "open", "close"}));
  EXPECT_EQ(fake.count(Kind::setns), 0u);
  EXPECT_TRUE(fake.openDescriptors().empty());
}

TEST_F(SocketAtBody, RefusedEntryClosesBothAndKeepsItsErrno) {
  fake.failNext(Kind::setns, EPERM);
  EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue"), 0);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(innerCalls(), (std::vector<std::string>{"open", "open", "setns", "close", "close"}));
  EXPECT_EQ(fake.count(Kind::socket), 0u);
  EXPECT_TRUE(fake.openDescriptors().empty());
}

TEST_F(SocketAtBody, FailedSocketStillReturnsToTheOwnNamespace) {
  fake.failNext(Kind::socket, EAFNOSUPPORT);
  // A close that disturbs errno must not hide the socket's error.
  fake.behaviour().close = [inner = fake.behaviour().close](int fd) {
    int const r = inner(fd);
    errno = EBADF;
    return r;
  };
  EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, "blue"), 0);
  EXPECT_EQ(errno, EAFNOSUPPORT);
  EXPECT_EQ(innerCalls(), (std::vector<std::string>{"open", "open", "setns", "socket", "setns", "close", "close"}));
  EXPECT_EQ(fake.calls(Kind::setns).at(1).fd, fake.calls(Kind::open).at(1).result);
  EXPECT_TRUE(fake.openDescriptors().empty());
}

TEST_F(SocketAtBody, BadNamesFailWithEinvalBeforeAnyCall) {
  std::string const longest(Ovel::maxNsNameBytes, 'n');
  for (std::string const & bad : {longest + "n", std::string("a/b"), std::string("/"), std::string("."), std::string("..")}) {
    fake.clearCalls();
    errno = 0;
    EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, bad.c_str()), 0) << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
    EXPECT_TRUE(innerCalls().empty()) << bad;
  }
  // The longest name accepted is looked up like any other.
  fake.clearCalls();
  EXPECT_LT(Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, 0, longest.c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fake.calls(Kind::open).at(0).text, "/run/netns/" + longest);
  // Names that only look special are ordinary names.
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
