// The fake platform's promises that other tests count on: descriptors, queued failures, socket
// options, fake files and datagrams, and that real descriptors still reach the kernel.
#include "tests/support/FakePlatform.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

namespace {

using IntfsmTest::FakePlatform;
using Kind = FakePlatform::Kind;

TEST(FakePlatform, DescriptorsAreHandedOutAndClosedOnce) {
  FakePlatform fake;
  Ovel::Platform & p = Ovel::platform();
  int const a = p.socketAt(AF_PACKET, SOCK_RAW, 0, "blue");
  int const b = p.socket(AF_NETLINK, SOCK_DGRAM, 0);
  EXPECT_EQ(a, FakePlatform::firstFakeDescriptor);
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(fake.openDescriptors(), (std::vector<int>{a, b}));

  EXPECT_EQ(p.close(a), 0);
  EXPECT_EQ(fake.openDescriptors(), std::vector<int>{b});
  EXPECT_EQ(p.close(a), -1) << "a second close is caught";
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(fake.count(Kind::close), 2u);
  EXPECT_EQ(fake.calls(Kind::close).at(1).error, EBADF);
}

TEST(FakePlatform, QueuedFailuresWinAndRunOut) {
  FakePlatform fake;
  Ovel::Platform & p = Ovel::platform();
  fake.failNext(Kind::socketAt, EMFILE, 2);
  EXPECT_EQ(p.socketAt(AF_INET, SOCK_DGRAM, 0, nullptr), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(p.socketAt(AF_INET, SOCK_DGRAM, 0, nullptr), -1);
  int const sd = p.socketAt(AF_INET, SOCK_DGRAM, 0, nullptr);
  EXPECT_EQ(sd, FakePlatform::firstFakeDescriptor) << "failed calls hand out nothing";

  fake.failAlways(Kind::bind, EADDRINUSE);
  sockaddr address{};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(p.bind(sd, &address, sizeof address), -1);
  fake.succeed(Kind::bind);
  EXPECT_EQ(p.bind(sd, &address, sizeof address), 0);
  auto const binds = fake.calls(Kind::bind);
  ASSERT_EQ(binds.size(), 4u);
  EXPECT_EQ(binds[0].error, EADDRINUSE);
  EXPECT_EQ(binds[3].error, 0);
  EXPECT_EQ(binds[3].data.size(), sizeof address);

  fake.failNext(Kind::setNetlinkOperState, ENODEV);
  EXPECT_FALSE(p.setNetlinkOperState(sd, "et1", 111, 5));
  EXPECT_EQ(errno, ENODEV);
  EXPECT_TRUE(p.setNetlinkOperState(sd, "et1", 111, 5));
  EXPECT_EQ(fake.operStateRequests().size(), 2u) << "failed requests are recorded too";
}

TEST(FakePlatform, SocketOptionsReadBackLikeTheKernel) {
  FakePlatform fake;
  Ovel::Platform & p = Ovel::platform();
  int const sd = p.socket(AF_PACKET, SOCK_RAW, 0);
  int value = 0;
  socklen_t length = sizeof value;
  ASSERT_EQ(p.getsockopt(sd, SOL_SOCKET, SO_RCVBUF, &value, &length), 0);
  EXPECT_EQ(value, 212992);

  int const requested = 1 << 20;
  ASSERT_EQ(p.setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &requested, sizeof requested), 0);
  ASSERT_EQ(p.getsockopt(sd, SOL_SOCKET, SO_RCVBUF, &value, &length), 0);
  EXPECT_EQ(value, 2 << 20);

  int const prio = 6;
  ASSERT_EQ(p.setsockopt(sd, SOL_SOCKET, SO_PRIORITY, &prio, sizeof prio), 0);
  ASSERT_EQ(p.getsockopt(sd, SOL_SOCKET, SO_PRIORITY, &value, &length), 0);
  EXPECT_EQ(value, 6);

  auto const set = fake.calls(Kind::setsockopt).at(1);
  EXPECT_EQ(set.fd, sd);
  EXPECT_EQ(set.a, SOL_SOCKET);
  EXPECT_EQ(set.b, SO_PRIORITY);
  EXPECT_EQ(set.data, std::string(reinterpret_cast<char const *>(&prio), sizeof prio));
}

TEST(FakePlatform, FixedPathsSeeOnlyTheFakeFiles) {
  FakePlatform fake;
  Ovel::Platform & p = Ovel::platform();
  struct stat st {};
  EXPECT_EQ(p.lstat("/etc/passwd", &st), -1) << "the real file system is not seen";
  EXPECT_EQ(errno, ENOENT);

  fake.fileIs("/proc/sys/net/core/packet_rlimit_opt", "23\n");
  EXPECT_EQ(p.stat("/proc/sys/net/core/packet_rlimit_opt", &st), 0);
  EXPECT_EQ(st.st_size, 3);
  FILE * f = p.fopen("/proc/sys/net/core/packet_rlimit_opt", "r");
  ASSERT_NE(f, nullptr);
  int option = 0;
  EXPECT_EQ(std::fscanf(f, "%d", &option), 1);
  EXPECT_EQ(option, 23);
  std::fclose(f);

  fake.fileDel("/proc/sys/net/core/packet_rlimit_opt");
  EXPECT_EQ(p.fopen("/proc/sys/net/core/packet_rlimit_opt", "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fake.calls(Kind::fopen).at(1).text, "/proc/sys/net/core/packet_rlimit_opt");
}

TEST(FakePlatform, QueuedDatagramsAreReceivedInOrder) {
  FakePlatform fake;
  Ovel::Platform & p = Ovel::platform();
  int const sd = p.socket(AF_PACKET, SOCK_RAW, 0);
  fake.queueDatagram(sd, "first");
  fake.queueDatagram(sd, "second-long");
  fake.queueDatagram(sd, "third");

  pollfd readable{sd, POLLIN, 0};
  EXPECT_EQ(p.poll(&readable, 1, 1000), 1);
  EXPECT_EQ(readable.revents, POLLIN);

  char a[16] = {}, b[6] = {};
  iovec iov[2] = {{a, sizeof a}, {b, sizeof b}};
  mmsghdr messages[2] = {};
  messages[0].msg_hdr.msg_iov = &iov[0];
  messages[0].msg_hdr.msg_iovlen = 1;
  messages[1].msg_hdr.msg_iov = &iov[1];
  messages[1].msg_hdr.msg_iovlen = 1;
  EXPECT_EQ(p.recvmmsg(sd, messages, 2, 0, nullptr), 2);
  EXPECT_EQ(std::string(a, messages[0].msg_len), "first");
  EXPECT_EQ(std::string(b, messages[1].msg_len), "second");
  EXPECT_EQ(messages[1].msg_hdr.msg_flags, MSG_TRUNC);

  msghdr one{};
  one.msg_iov = &iov[0];
  one.msg_iovlen = 1;
  EXPECT_EQ(p.recvmsg(sd, &one, 0), 5);
  EXPECT_EQ(p.recvmsg(sd, &one, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(p.poll(&readable, 1, 1000), 0) << "nothing queued: no wait";
}

TEST(FakePlatform, RealDescriptorsStillReachTheKernel) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  {
    FakePlatform fake;
    EXPECT_EQ(Ovel::platform().close(fds[0]), 0);
    EXPECT_EQ(fake.count(Kind::close), 1u);
  }
  EXPECT_EQ(::fcntl(fds[0], F_GETFD), -1) << "the real descriptor was closed";
  ::close(fds[1]);
}

}  // namespace
