#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "intfsm/foundation/platform/Platform.h"

namespace Interface {

namespace {

// The kernel answers RTM_SETLINK before sendto returns; the wait only covers what that misses.
constexpr std::chrono::milliseconds ackWait{1000};

// Stale replies are few; the bound only keeps a misbehaving peer from holding us forever.
constexpr int maxStaleDatagrams = 1024;

struct Buffer {
  alignas(nlmsghdr) char bytes[8192];
};

ssize_t receive(Platform::Calls const & calls, int sd, Buffer & buffer, sockaddr_nl & from) {
  iovec iov{buffer.bytes, sizeof buffer.bytes};
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof from;
  message.msg_iov = &iov;
  message.msg_iovlen = 1;
  return calls.recvmsg(sd, &message, MSG_DONTWAIT);
}

void discardStale(Platform::Calls const & calls, int sd, Buffer & buffer) {
  for (int i = 0; i < maxStaleDatagrams; ++i) {
    sockaddr_nl from{};
    if (receive(calls, sd, buffer, from) < 0 && errno != EINTR && errno != ENOBUFS) return;
  }
}

// The verdict carried by the acknowledgement of `seq` in one datagram: 1 accepted, 0 refused
// (errno set), -1 not in this datagram.
int verdictIn(Buffer const & buffer, int length, uint32_t seq) {
  for (auto const * nlh = reinterpret_cast<nlmsghdr const *>(buffer.bytes); mnl_nlmsg_ok(nlh, length);
       nlh = mnl_nlmsg_next(nlh, &length)) {
    if (nlh->nlmsg_seq != seq || nlh->nlmsg_type != NLMSG_ERROR) continue;
    if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
      errno = EPROTO;
      return 0;
    }
    auto const * answer = static_cast<nlmsgerr const *>(mnl_nlmsg_get_payload(nlh));
    if (answer->error == 0) return 1;
    errno = -answer->error;
    return 0;
  }
  return -1;
}

bool awaitAck(Platform::Calls const & calls, int sd, uint32_t seq, Buffer & buffer) {
  auto const deadline = std::chrono::steady_clock::now() + ackWait;
  bool overrun = false;
  for (;;) {
    sockaddr_nl from{};
    ssize_t const length = receive(calls, sd, buffer, from);
    if (length >= 0) {
      if (from.nl_pid != 0) continue;  // only the kernel answers a request
      int const verdict = verdictIn(buffer, static_cast<int>(length), seq);
      if (verdict >= 0) return verdict == 1;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == ENOBUFS) {
      overrun = true;  // something was dropped, perhaps our answer: look at what is left
      continue;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;

    auto const left = std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()),
                               std::chrono::milliseconds(0));
    pollfd readable{sd, POLLIN, 0};
    int const ready = calls.poll(&readable, 1, static_cast<int>(left.count()));
    if (ready == 0) {
      errno = overrun ? ENOBUFS : ETIMEDOUT;
      return false;
    }
    if (ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace

NetlinkOperStateHook & netlinkOperStateHook() {
  static NetlinkOperStateHook hook = &sendNetlinkOperState;
  return hook;
}

bool doSetNetlinkOperState(int sd, char const * deviceName, int tag, int operState) {
  return netlinkOperStateHook()(sd, deviceName, tag, operState);
}

bool sendNetlinkOperState(int sd, char const * deviceName, int tag, int operState) {
  if (deviceName == nullptr || deviceName[0] == '\0' || std::strlen(deviceName) >= IFNAMSIZ ||
      operState < IF_OPER_UNKNOWN || operState > IF_OPER_UP) {
    errno = EINVAL;
    return false;
  }
  Platform::Calls const & calls = Platform::calls();
  uint32_t const seq = static_cast<uint32_t>(tag);

  alignas(nlmsghdr) char request[128] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(request);
  nlh->nlmsg_type = RTM_SETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  nlh->nlmsg_seq = seq;
  auto * link = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  link->ifi_family = AF_UNSPEC;
  link->ifi_index = 0;  // the device is named by IFLA_IFNAME
  mnl_attr_put_strz(nlh, IFLA_IFNAME, deviceName);
  mnl_attr_put_u8(nlh, IFLA_OPERSTATE, static_cast<uint8_t>(operState));

  Buffer buffer;
  discardStale(calls, sd, buffer);

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ssize_t sent;
  do {
    sent = calls.sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr const *>(&kernel), sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return false;

  return awaitAck(calls, sd, seq, buffer);
}

}  // namespace Interface
