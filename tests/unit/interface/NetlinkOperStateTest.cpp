// The oper-state request as it goes on the wire, and how its acknowledgement is found, against a
// scripted kernel on a fake socket: stale and foreign replies, interrupted calls, lost answers.
#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tests/support/FakePlatform.h"

namespace {

using IntfsmTest::FakePlatform;
using Kind = FakePlatform::Kind;

// An NLMSG_ERROR datagram answering sequence `seq` with `error` (0 = accepted).
std::string ackFor(uint32_t seq, int error, uint32_t length = 0) {
  alignas(nlmsghdr) char buffer[256] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(buffer);
  nlh->nlmsg_type = NLMSG_ERROR;
  nlh->nlmsg_seq = seq;
  auto * err = static_cast<nlmsgerr *>(mnl_nlmsg_put_extra_header(nlh, sizeof(nlmsgerr)));
  err->error = error;
  err->msg.nlmsg_type = RTM_SETLINK;
  err->msg.nlmsg_seq = seq;
  if (length != 0) nlh->nlmsg_len = length;
  return std::string(buffer, nlh->nlmsg_len);
}

sockaddr_storage fromPort(uint32_t pid) {
  sockaddr_storage storage{};
  auto * nl = reinterpret_cast<sockaddr_nl *>(&storage);
  nl->nl_family = AF_NETLINK;
  nl->nl_pid = pid;
  return storage;
}

// The attributes of a sent RTM_SETLINK request, by type.
struct SentRequest {
  nlmsghdr header{};
  ifinfomsg link{};
  std::map<uint16_t, std::string> attributes;
};

SentRequest parse(std::string const & bytes) {
  SentRequest r;
  alignas(nlmsghdr) char buffer[512];
  std::memcpy(buffer, bytes.data(), std::min(bytes.size(), sizeof buffer));
  auto const * nlh = reinterpret_cast<nlmsghdr const *>(buffer);
  r.header = *nlh;
  r.link = *static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(nlh));
  auto const collect = [](nlattr const * attr, void * data) {
    static_cast<SentRequest *>(data)->attributes[mnl_attr_get_type(attr)] =
        std::string(static_cast<char const *>(mnl_attr_get_payload(attr)), mnl_attr_get_payload_len(attr));
    return MNL_CB_OK;
  };
  mnl_attr_parse(nlh, sizeof(ifinfomsg), collect, &r);
  return r;
}

// The real request body over a fake netlink socket, with a kernel that answers each request with
// the replies in `replies` (the sequence number of the request is passed to each maker).
class NetlinkOperStateBody : public ::testing::Test {
 protected:
  using Reply = std::function<void(int sd, uint32_t seq)>;

  NetlinkOperStateBody() {
    fake.behaviour().setNetlinkOperState = Ovel::realPlatform().setNetlinkOperState;
    sd = Ovel::platform().socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
    fake.behaviour().sendto = [this, inner = fake.behaviour().sendto](int fd, void const * data, size_t length, int flags,
                                                                       sockaddr const * to, socklen_t toLength) {
      auto const * nlh = static_cast<nlmsghdr const *>(data);
      destination = *reinterpret_cast<sockaddr_nl const *>(to);
      for (Reply const & reply : replies) reply(fd, nlh->nlmsg_seq);
      return inner(fd, data, length, flags, to, toLength);
    };
    fake.clearCalls();
  }

  Reply ack(int error = 0) {
    return [this, error](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq, error)); };
  }

  bool send(char const * device, int tag, int operState) {
    return Interface::doSetNetlinkOperState(sd, device, tag, operState);
  }

  FakePlatform fake;
  int sd = -1;
  std::vector<Reply> replies;
  sockaddr_nl destination{};
};

TEST(NetlinkOperState, GoesThroughTheLiveTable) {
  FakePlatform fake;
  fake.operStateResultIs(false, ENODEV);
  errno = 0;
  EXPECT_FALSE(Interface::doSetNetlinkOperState(7, "et1", 111, IF_OPER_DORMANT));
  EXPECT_EQ(errno, ENODEV);
  fake.operStateResultIs(true);
  EXPECT_TRUE(Interface::doSetNetlinkOperState(7, "et2", 111, IF_OPER_UP));
  EXPECT_EQ(fake.operStateRequests(), (std::vector<FakePlatform::OperStateRequest>{
                                          {7, "et1", 111, IF_OPER_DORMANT}, {7, "et2", 111, IF_OPER_UP}}));
}

TEST_F(NetlinkOperStateBody, RequestNamesTheDeviceAndCarriesTheStateAndTag) {
  replies = {ack()};
  EXPECT_TRUE(send("et12", 111, IF_OPER_DORMANT));
  ASSERT_EQ(fake.count(Kind::sendto), 1u);
  SentRequest const r = parse(fake.calls(Kind::sendto).at(0).data);
  EXPECT_EQ(r.header.nlmsg_type, RTM_SETLINK);
  EXPECT_EQ(r.header.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
  EXPECT_EQ(r.header.nlmsg_seq, 111u);
  EXPECT_EQ(r.header.nlmsg_len, fake.calls(Kind::sendto).at(0).data.size());
  EXPECT_EQ(r.link.ifi_family, AF_UNSPEC);
  EXPECT_EQ(r.link.ifi_index, 0);
  EXPECT_EQ(r.attributes.size(), 2u);
  EXPECT_EQ(r.attributes.at(IFLA_IFNAME), std::string("et12", 5));  // with its terminating zero
  EXPECT_EQ(r.attributes.at(IFLA_OPERSTATE), std::string(1, static_cast<char>(IF_OPER_DORMANT)));
  EXPECT_EQ(destination.nl_family, AF_NETLINK);
  EXPECT_EQ(destination.nl_pid, 0u);
}

TEST_F(NetlinkOperStateBody, TagIsTheSequenceNumberMatched) {
  replies = {ack()};
  EXPECT_TRUE(send("et1", 4242, IF_OPER_UP));
  EXPECT_EQ(parse(fake.calls(Kind::sendto).at(0).data).header.nlmsg_seq, 4242u);
  EXPECT_TRUE(send("et1", -1, IF_OPER_UP));  // any int is a sequence number
  EXPECT_EQ(parse(fake.calls(Kind::sendto).at(1).data).header.nlmsg_seq, 0xffffffffu);
}

TEST_F(NetlinkOperStateBody, KernelErrorIsReturnedAsErrno) {
  replies = {ack(-ENODEV)};
  errno = 0;
  EXPECT_FALSE(send("nosuch0", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ENODEV);
  replies = {ack(-EPERM)};
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, EPERM);
}

TEST_F(NetlinkOperStateBody, WhatWasQueuedBeforeTheRequestIsDiscarded) {
  // A refusal left over from an earlier request, with the same tag.
  fake.queueDatagram(sd, ackFor(111, -ENODEV));
  fake.queueDatagram(sd, ackFor(5, -EPERM));
  replies = {ack()};
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.queuedDatagrams(sd), 0u);
}

TEST_F(NetlinkOperStateBody, RepliesWithOtherSequenceNumbersAreSkipped) {
  replies = {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq + 1, -EPERM)); },
             [this](int fd, uint32_t seq) {
               // Two messages in one datagram: a foreign one first, then ours.
               fake.queueDatagram(fd, ackFor(seq - 1, -EBUSY) + ackFor(seq, 0));
             }};
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::recvmsg), 3u);  // the drain, then two datagrams
}

TEST_F(NetlinkOperStateBody, RepliesFromOtherPortsAreSkipped) {
  replies = {[this](int fd, uint32_t seq) {
               sockaddr_storage const from = fromPort(4711);
               fake.queueDatagram(fd, ackFor(seq, -EPERM), &from);
             },
             ack(-ENODEV)};
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ENODEV);
}

TEST_F(NetlinkOperStateBody, InterruptedCallsAreRetried) {
  replies = {ack()};
  fake.failNext(Kind::sendto, EINTR, 2);
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::sendto), 3u);

  fake.clearCalls();
  // After the drain's EAGAIN the next receive is interrupted twice, then sees the answer.
  fake.behaviour().recvmsg = [this, inner = fake.behaviour().recvmsg, calls = 0](int fd, msghdr * m, int flags) mutable {
    if (++calls == 2 || calls == 3) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return inner(fd, m, flags);
  };
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::recvmsg), 4u);
}

TEST_F(NetlinkOperStateBody, NoAnswerTimesOut) {
  errno = 0;
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(fake.count(Kind::poll), 1u);
}

TEST_F(NetlinkOperStateBody, OverrunWithoutAnswerReportsEnobufs) {
  replies = {[this](int, uint32_t) { fake.failNext(Kind::recvmsg, ENOBUFS); }};
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ENOBUFS);
}

TEST_F(NetlinkOperStateBody, OverrunBeforeTheAnswerStillFindsIt) {
  replies = {[this](int, uint32_t) { fake.failNext(Kind::recvmsg, ENOBUFS); }, ack()};
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
}

TEST_F(NetlinkOperStateBody, AnswerArrivingAfterAWaitIsUsed) {
  fake.behaviour().poll = [this](pollfd * fds, nfds_t, int timeoutMs) {
    EXPECT_GT(timeoutMs, 0);
    fake.queueDatagram(fds[0].fd, ackFor(111, 0));
    fds[0].revents = POLLIN;
    return 1;
  };
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::poll), 1u);
}

TEST_F(NetlinkOperStateBody, FailuresOfTheSocketAreReturned) {
  fake.failNext(Kind::sendto, ECONNREFUSED);
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ECONNREFUSED);

  replies = {[this](int, uint32_t) { fake.failNext(Kind::recvmsg, EBADF); }};
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(NetlinkOperStateBody, TruncatedAnswerIsAProtocolError) {
  replies = {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq, 0, NLMSG_HDRLEN + 4).substr(0, NLMSG_HDRLEN + 4)); }};
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, EPROTO);
}

TEST_F(NetlinkOperStateBody, BadArgumentsFailWithEinvalAndSendNothing) {
  replies = {ack()};
  struct Case {
    char const * device;
    int operState;
  };
  for (Case const c : {Case{"et123456789abcd0", IF_OPER_UP},  // 16 bytes: no room for the zero
                       Case{"", IF_OPER_UP}, Case{nullptr, IF_OPER_UP}, Case{"et1", -1}, Case{"et1", IF_OPER_UP + 1},
                       Case{"et1", 256 + IF_OPER_UP}}) {
    errno = 0;
    EXPECT_FALSE(send(c.device, 111, c.operState)) << (c.device ? c.device : "(null)") << " " << c.operState;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(fake.count(Kind::sendto), 0u);
  EXPECT_EQ(fake.count(Kind::recvmsg), 0u);

  // The longest name and the whole range of states are sent.
  EXPECT_TRUE(send("et123456789abcd", 111, IF_OPER_UNKNOWN));
  EXPECT_TRUE(send("et123456789abcd", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::sendto), 2u);
}

}  // namespace
