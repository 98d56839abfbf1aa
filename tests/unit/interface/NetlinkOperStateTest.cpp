// The oper-state request as it goes on the wire, and how its acknowledgement is found, against a
// scripted kernel on a fake socket: stale and foreign replies, interrupted calls, lost answers.
#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <sstream>
#include <string>
#include <utility>
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

// A sent request as "<type> <flags> seq <seq> ifi <family> <index>", then each attribute in order as
// " <type>=<payload>" (a u8 as its number, then "/" and its length).
std::string requestText(std::string const & bytes) {
  alignas(nlmsghdr) char buffer[512] = {};
  std::memcpy(buffer, bytes.data(), std::min(bytes.size(), sizeof buffer));
  auto * nlh = reinterpret_cast<nlmsghdr *>(buffer);
  auto const * link = static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(nlh));
  std::ostringstream os;
  os << nlh->nlmsg_type << ' ' << nlh->nlmsg_flags << " seq " << nlh->nlmsg_seq << " ifi " << int{link->ifi_family}
     << ' ' << link->ifi_index;
  if (nlh->nlmsg_len != bytes.size()) os << " length " << nlh->nlmsg_len << " of " << bytes.size();
  char const * const tail = static_cast<char const *>(mnl_nlmsg_get_payload_tail(nlh));
  for (auto * attr = static_cast<nlattr *>(mnl_nlmsg_get_payload_offset(nlh, sizeof(ifinfomsg)));
       mnl_attr_ok(attr, static_cast<int>(tail - reinterpret_cast<char const *>(attr))); attr = mnl_attr_next(attr)) {
    os << ' ' << mnl_attr_get_type(attr) << '=';
    if (mnl_attr_get_type(attr) != IFLA_OPERSTATE) {
      os << std::string(static_cast<char const *>(mnl_attr_get_payload(attr)), mnl_attr_get_payload_len(attr));
    } else {
      os << int{mnl_attr_get_u8(attr)} << '/' << mnl_attr_get_payload_len(attr);
    }
  }
  return os.str();
}

// The real request body over a fake netlink socket, with a kernel that answers each request with
// the replies in `replies` (the sequence number of the request is passed to each maker).
class NetlinkOperStateBody : public ::testing::Test {
 protected:
  using Reply = std::function<void(int sd, uint32_t seq)>;

  NetlinkOperStateBody() {
    fake.behaviour().setNetlinkOperState = &Interface::sendNetlinkOperState;
    sd = Platform::calls().socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
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
  Reply fromPort4711(int error) {
    return [this, error](int fd, uint32_t seq) {
      sockaddr_storage from{};
      reinterpret_cast<sockaddr_nl &>(from) = sockaddr_nl{AF_NETLINK, 0, 4711, 0};
      fake.queueDatagram(fd, ackFor(seq, error), &from);
    };
  }
  Reply failRecv(int error, unsigned times = 1) {
    return [this, error, times](int, uint32_t) { fake.failNext(Kind::recvmsg, error, times); };
  }

  bool send(char const * device, int tag, int operState) {
    return Interface::doSetNetlinkOperState(sd, device, tag, operState);
  }

  FakePlatform fake;
  int sd = -1;
  std::vector<Reply> replies;
  sockaddr_nl destination{};
};

TEST_F(NetlinkOperStateBody, RequestNamesTheDeviceAndCarriesTheStateWithTheTagAsSequenceNumber) {
  replies = {ack()};
  EXPECT_TRUE(send("et12", 111, IF_OPER_DORMANT));
  ASSERT_EQ(fake.count(Kind::sendto), 1u);
  EXPECT_EQ(requestText(fake.calls(Kind::sendto).at(0).data),
            std::to_string(RTM_SETLINK) + " " + std::to_string(NLM_F_REQUEST | NLM_F_ACK) + " seq 111 ifi 0 0 " +
                std::to_string(IFLA_IFNAME) + "=" + std::string("et12", 5) + " " + std::to_string(IFLA_OPERSTATE) +
                "=" + std::to_string(IF_OPER_DORMANT) + "/1");
  EXPECT_EQ(destination.nl_family, AF_NETLINK);
  EXPECT_EQ(destination.nl_pid, 0u);

  EXPECT_TRUE(send("et1", -1, IF_OPER_UP));  // any int is a sequence number
  EXPECT_NE(requestText(fake.calls(Kind::sendto).at(1).data).find(" seq 4294967295 "), std::string::npos);
}

TEST_F(NetlinkOperStateBody, TheAnswerIsFoundPastStaleForeignAndLostReplies) {
  // A refusal left over from an earlier request with the same tag, discarded before sending.
  fake.queueDatagram(sd, ackFor(111, -ENODEV));
  replies = {failRecv(ENOBUFS),  // an overrun before the answer
             [this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq + 1, -EPERM)); },
             fromPort4711(-EPERM),
             // Two messages in one datagram: a foreign one first, then ours.
             [this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq - 1, -EBUSY) + ackFor(seq, 0)); }};
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.queuedDatagrams(sd), 0u);
}

TEST_F(NetlinkOperStateBody, FailuresAreReturnedAsErrno) {
  struct Case {
    char const * what;
    std::vector<Reply> replies;
    int error;
  };
  std::vector<Case> const cases = {
      {"refused by the kernel", {ack(-ENODEV)}, ENODEV},
      {"refused, after a refusal from another port", {fromPort4711(-EPERM), ack(-ENODEV)}, ENODEV},
      {"overrun without an answer", {failRecv(ENOBUFS)}, ENOBUFS},
      {"receive fails", {failRecv(EBADF)}, EBADF},
      {"truncated answer",
       {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq, 0, NLMSG_HDRLEN + 4).substr(0, NLMSG_HDRLEN + 4)); }},
       EPROTO},
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.what);
    replies = c.replies;
    errno = 0;
    EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
    EXPECT_EQ(errno, c.error);
  }
  fake.failNext(Kind::sendto, ECONNREFUSED);
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ECONNREFUSED);

  replies.clear();
  fake.clearCalls();
  EXPECT_FALSE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(fake.count(Kind::poll), 1u);
}

TEST_F(NetlinkOperStateBody, InterruptedCallsAreRetriedAndALateAnswerIsAwaited) {
  replies = {ack()};
  fake.failNext(Kind::sendto, EINTR, 2);
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::sendto), 3u);

  fake.clearCalls();
  replies = {failRecv(EINTR, 2), ack()};  // the receives after the request are interrupted twice
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::recvmsg), 4u);  // the drain, two interrupted, the answer

  replies.clear();
  fake.behaviour().poll = [this](pollfd * fds, nfds_t, int timeoutMs) {
    EXPECT_GT(timeoutMs, 0);
    fake.queueDatagram(fds[0].fd, ackFor(111, 0));
    fds[0].revents = POLLIN;
    return 1;
  };
  EXPECT_TRUE(send("et1", 111, IF_OPER_UP));
}

TEST_F(NetlinkOperStateBody, BadArgumentsFailWithEinvalAndSendNothing) {
  replies = {ack()};
  using Case = std::pair<char const *, int>;  // device, operState
  for (auto const & [device, operState] :
       {Case{"et123456789abcd0", IF_OPER_UP},  // 16 bytes: no room for the zero
        Case{"", IF_OPER_UP}, Case{nullptr, IF_OPER_UP}, Case{"et1", -1}, Case{"et1", IF_OPER_UP + 1},
        Case{"et1", 256 + IF_OPER_UP}}) {
    errno = 0;
    EXPECT_FALSE(send(device, 111, operState)) << (device ? device : "(null)") << " " << operState;
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
