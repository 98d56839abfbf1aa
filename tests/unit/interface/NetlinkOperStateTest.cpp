// The oper-state request as it goes on the wire, and what becomes of the kernel's answer, against a
// scripted kernel on a fake socket: refusals are traced and survived, nothing is waited for, stale
// and foreign replies are skipped, only a failed send is a failure.
#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/FakePlatform.h"
#include "tests/support/TraceCapture.h"

namespace {

using IntfsmTest::FakePlatform;
using Kind = FakePlatform::Kind;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

// An NLMSG_ERROR datagram answering sequence `seq` with `error` (0 = accepted); a `length` other than
// 0 is its nlmsg_len, and cuts it when shorter.
std::string ackFor(uint32_t seq, int error, uint32_t length = 0) {
  alignas(nlmsghdr) char buffer[256] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(buffer);
  nlh->nlmsg_type = NLMSG_ERROR;
  nlh->nlmsg_seq = seq;
  auto * err = static_cast<nlmsgerr *>(mnl_nlmsg_put_extra_header(nlh, sizeof(nlmsgerr)));
  err->error = error;
  err->msg.nlmsg_type = RTM_SETLINK;
  err->msg.nlmsg_seq = seq;
  size_t const size = nlh->nlmsg_len;
  if (length != 0) nlh->nlmsg_len = length;
  return std::string(buffer, std::min<size_t>(size, nlh->nlmsg_len));
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
// the replies in `replies` (each gets the request's sequence number) while sendto runs.
class NetlinkOperStateBody : public ::testing::Test {
 protected:
  using Reply = std::function<void(int sd, uint32_t seq)>;

  NetlinkOperStateBody() {
    fake.behaviour().setNetlinkOperState = &Interface::sendNetlinkOperState;
    sd = Platform::calls().socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
    fake.behaviour().sendto = [this, inner = fake.behaviour().sendto](int fd, void const * data, size_t length, int flags,
                                                                       sockaddr const * to, socklen_t toLength) {
      destination = *reinterpret_cast<sockaddr_nl const *>(to);
      for (Reply const & reply : replies) reply(fd, static_cast<nlmsghdr const *>(data)->nlmsg_seq);
      return inner(fd, data, length, flags, to, toLength);
    };
    fake.clearCalls();
  }

  Reply ack(int error = 0, int seqOffset = 0) {
    return [=, this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq + seqOffset, error)); };
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

  bool send(char const * device, int operState = IF_OPER_UP, int tag = 111) {
    return Interface::doSetNetlinkOperState(sd, device, tag, operState);
  }
  // The lines of the handle "Interface" as "<level> <text>".
  std::vector<std::string> traced() const {
    std::vector<std::string> out;
    for (auto const & line : trace.lines()) {
      if (line.module == "Interface") out.push_back(std::to_string(line.level) + " " + line.text);
    }
    return out;
  }

  FakePlatform fake;
  IntfsmTest::TraceCapture trace{"Interface"};
  int sd = -1;
  std::vector<Reply> replies;
  sockaddr_nl destination{};
};

TEST_F(NetlinkOperStateBody, RequestNamesTheDeviceAndCarriesTheStateWithTheTagAsSequenceNumber) {
  replies = {ack()};
  EXPECT_TRUE(send("et12", IF_OPER_DORMANT));
  EXPECT_TRUE(send("et1", IF_OPER_UP, -1));  // any int is a sequence number
  auto const sent = fake.calls(Kind::sendto);
  ASSERT_EQ(sent.size(), 2u);
  std::string const head = std::to_string(RTM_SETLINK) + " " + std::to_string(NLM_F_REQUEST | NLM_F_ACK);
  std::string const name = " " + std::to_string(IFLA_IFNAME) + "=";
  std::string const state = " " + std::to_string(IFLA_OPERSTATE) + "=";
  EXPECT_EQ(requestText(sent[0].data), head + " seq 111 ifi 0 0" + name + std::string("et12", 5) + state +
                                           std::to_string(IF_OPER_DORMANT) + "/1");
  EXPECT_EQ(requestText(sent[1].data), head + " seq 4294967295 ifi 0 0" + name + std::string("et1", 4) + state +
                                           std::to_string(IF_OPER_UP) + "/1");
  EXPECT_EQ(std::tuple(destination.nl_family, destination.nl_pid, traced().size()), std::tuple(AF_NETLINK, 0u, 0u));
}

// Whatever the kernel answers, or does not answer yet, the request was sent: true, and the answer
// read without waiting. What is not an acceptance is traced.
TEST_F(NetlinkOperStateBody, AnswersAreReadAtOnceTracedAndNeverAFailure) {
  struct Case {
    char const * what;
    std::vector<std::string> stale;  // late answers to an earlier request that had none in time
    std::vector<Reply> replies;
    std::vector<std::string> traces;
  };
  std::string const prefix = "IFLA_OPERSTATE 6 for device et1";
  std::vector<Case> const cases = {
      {"accepted", {}, {ack()}, {}},
      {"accepted, past an overrun and replies that are not the answer",
       {},
       {failRecv(ENOBUFS), ack(-EPERM, 1), fromPort4711(-EPERM),
        [this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq - 1, -EBUSY) + ackFor(seq, 0)); }},
       {}},
      {"the late refusal of an earlier request is discarded", {ackFor(111, -ENODEV), ackFor(111, -ENODEV)}, {ack()}, {}},
      {"refused", {}, {ack(-ENODEV)}, {"0 " + prefix + " refused: No such device"}},
      {"no answer yet", {}, {}, {"1 " + prefix + ": no answer yet"}},
      {"truncated answer",
       {},
       {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq, 0, NLMSG_HDRLEN + 4)); }},
       {"0 " + prefix + ": answer not read: Protocol error"}},
      // Bytes the kernel never sends: no length is trusted before it is checked against the bytes read.
      {"a message claiming 4 GiB less 16 ahead of the answer",
       {},
       {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq - 1, 0, 0xfffffff0) + ackFor(seq, 0)); }},
       {"1 " + prefix + ": no answer yet"}},
      {"a message whose length aligns to 0 ahead of the answer",
       {},
       {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq - 1, 0, 0xfffffffd) + ackFor(seq, 0)); }},
       {"1 " + prefix + ": no answer yet"}},
      {"an answer claiming 2 GiB", {}, {[this](int fd, uint32_t seq) { fake.queueDatagram(fd, ackFor(seq, 0, 0x80000000)); }},
       {"1 " + prefix + ": no answer yet"}},
      {"an error that is no errno: INT_MIN", {}, {ack(INT_MIN)}, {"0 " + prefix + ": answer not read: Protocol error"}},
      {"an error that is no errno: positive", {}, {ack(5)}, {"0 " + prefix + ": answer not read: Protocol error"}},
  };
  for (Case const & c : cases) {
    SCOPED_TRACE(c.what);
    if (!c.stale.empty()) {
      replies = {};
      EXPECT_TRUE(send("et1"));
      for (std::string const & datagram : c.stale) fake.queueDatagram(sd, datagram);
    }
    trace.clear();
    fake.clearCalls();
    replies = c.replies;
    EXPECT_TRUE(send("et1"));
    EXPECT_THAT(traced(), ElementsAreArray(c.traces));
    // One send, no wait, and every datagram read.
    EXPECT_EQ(std::tuple(fake.count(Kind::sendto), fake.count(Kind::poll), fake.queuedDatagrams(sd)), std::tuple(1u, 0u, 0u));
    for (auto const & call : fake.calls(Kind::recvmsg)) EXPECT_EQ(call.a, MSG_DONTWAIT);
  }
}

// A request costs the kernel's answer and one receive; the socket is drained first only after a
// request whose answer was not there yet.
TEST_F(NetlinkOperStateBody, TheSocketIsDrainedOnlyAfterAnAnswerLeftUnread) {
  for (auto [answered, receives] : {std::pair(true, 1u), {true, 1u}, {false, 1u}, {true, 2u}, {true, 1u}}) {
    replies = answered ? std::vector<Reply>{ack()} : std::vector<Reply>{};
    fake.clearCalls();
    EXPECT_TRUE(send("et1"));
    EXPECT_EQ(fake.count(Kind::recvmsg), receives);
  }
}

// Arguments no request can carry are the caller's error: false, EINVAL, nothing sent. A name no
// device can have is answered here as the kernel would refuse it: traced, true, nothing sent.
TEST_F(NetlinkOperStateBody, BadArgumentsSendNothing) {
  replies = {ack()};
  struct Case {
    char const * device;
    int operState;
  };
  for (Case const c : {Case{"", IF_OPER_UP}, Case{nullptr, IF_OPER_UP}, Case{"et1", -1}, Case{"et1", IF_OPER_UP + 1},
                       Case{"et1", 256 + IF_OPER_UP}}) {
    errno = 0;
    EXPECT_FALSE(send(c.device, c.operState)) << (c.device ? c.device : "(null)") << " " << c.operState;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_TRUE(send("et123456789abcd0", IF_OPER_DORMANT));  // 16 bytes: no room for the zero
  EXPECT_THAT(traced(), ElementsAre("0 IFLA_OPERSTATE 5 for device et123456789abcd0 not sent: device name longer "
                                    "than 15 bytes"));
  EXPECT_EQ(std::tuple(fake.count(Kind::sendto), fake.count(Kind::recvmsg)), std::tuple(0u, 0u));

  // The longest name and both ends of the range are sent.
  EXPECT_TRUE(send("et123456789abcd", IF_OPER_UNKNOWN));
  EXPECT_TRUE(send("et123456789abcd", IF_OPER_UP));
  EXPECT_EQ(fake.count(Kind::sendto), 2u);
}

}  // namespace
