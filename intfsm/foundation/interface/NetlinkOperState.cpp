#include "intfsm/foundation/interface/NetlinkOperState.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "intfsm/foundation/interface/internal/Trace.h"
#include "intfsm/foundation/platform/NetlinkMessages.h"
#include "intfsm/foundation/platform/Platform.h"

namespace Interface {

namespace {

// Stale replies are few; the bound only keeps a misbehaving peer from holding us forever.
constexpr int maxDatagrams = 1024;

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

// Sockets whose last request left its answer unread. Only those can hold a late answer carrying
// the sequence number of the next request; the others need no drain, which saves a receive per
// request (the acknowledged request costs a few microseconds in all). A descriptor closed and
// reused while listed costs one needless drain.
std::vector<int> & answerOwed() {
  static std::vector<int> sds;
  return sds;
}

void discardStale(Platform::Calls const & calls, int sd, Buffer & buffer) {
  auto & owed = answerOwed();
  auto const at = std::find(owed.begin(), owed.end(), sd);
  if (at == owed.end()) return;
  owed.erase(at);
  for (int i = 0; i < maxDatagrams; ++i) {
    sockaddr_nl from{};
    if (receive(calls, sd, buffer, from) < 0 && errno != EINTR && errno != ENOBUFS) return;
  }
}

enum class Verdict { none, accepted, refused, unreadable };

// The kernel's errors are -1 .. -4095; anything else in an acknowledgement is not one.
constexpr int maxErrno = 4095;

// The acknowledgement of `seq` in one datagram; `error` is the kernel's errno when refused.
Verdict verdictIn(Buffer const & buffer, size_t length, uint32_t seq, int & error) {
  Platform::NetlinkMessages messages(buffer.bytes, length);
  while (nlmsghdr const * nlh = messages.next()) {
    if (nlh->nlmsg_seq != seq || nlh->nlmsg_type != NLMSG_ERROR) continue;
    if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
      error = EPROTO;
      return Verdict::unreadable;
    }
    int const code = static_cast<nlmsgerr const *>(mnl_nlmsg_get_payload(nlh))->error;
    if (code > 0 || code < -maxErrno) {
      error = EPROTO;
      return Verdict::unreadable;
    }
    error = -code;
    return error == 0 ? Verdict::accepted : Verdict::refused;
  }
  return Verdict::none;
}

// Reads what the kernel has queued for the request, without waiting, and traces what is not an
// acceptance. False when the answer is not there yet: the next request on the socket then discards
// it when it comes.
bool answerRead(Platform::Calls const & calls, int sd, uint32_t seq, Buffer & buffer, char const * deviceName,
                int operState) {
  for (int i = 0; i < maxDatagrams; ++i) {
    sockaddr_nl from{};
    ssize_t const length = receive(calls, sd, buffer, from);
    int error = errno;
    if (length < 0) {
      // ENOBUFS: something was dropped, perhaps the answer; look at what is left.
      if (error == EINTR || error == ENOBUFS) continue;
      if (error == EAGAIN || error == EWOULDBLOCK) {
        INTF_TRACE(1, "IFLA_OPERSTATE " << operState << " for device " << deviceName << ": no answer yet");
      } else {
        INTF_TRACE(0, "IFLA_OPERSTATE " << operState << " for device " << deviceName
                                        << ": answer not read: " << std::strerror(error));
      }
      return false;
    }
    if (from.nl_pid != 0) continue;  // only the kernel answers a request
    switch (verdictIn(buffer, static_cast<size_t>(length), seq, error)) {
      case Verdict::none:
        continue;
      case Verdict::accepted:
        return true;
      case Verdict::refused:
        INTF_TRACE(0, "IFLA_OPERSTATE " << operState << " for device " << deviceName
                                        << " refused: " << std::strerror(error));
        return true;
      case Verdict::unreadable:
        INTF_TRACE(0, "IFLA_OPERSTATE " << operState << " for device " << deviceName
                                        << ": answer not read: " << std::strerror(error));
        return true;
    }
  }
  return false;
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
  if (deviceName == nullptr || deviceName[0] == '\0' || operState < IF_OPER_UNKNOWN || operState > IF_OPER_UP) {
    errno = EINVAL;
    return false;
  }
  if (std::strlen(deviceName) >= IFNAMSIZ) {
    INTF_TRACE(0, "IFLA_OPERSTATE " << operState << " for device " << deviceName
                                    << " not sent: device name longer than " << IFNAMSIZ - 1 << " bytes");
    return true;
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

  if (!answerRead(calls, sd, seq, buffer, deviceName, operState)) answerOwed().push_back(sd);
  return true;
}

}  // namespace Interface
