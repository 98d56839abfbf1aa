// The reader of the kernel's answer to an oper-state request (Interface::sendNetlinkOperState),
// through the platform table: sendto succeeds (or fails as the input says) and recvmsg hands out the
// datagrams, errors and sources the input scripts, as the kernel would have queued them. Each run
// sends a few requests; whatever the bytes say, a request that could be sent is true, and nothing
// reads outside the datagram.
//
// Input: two bytes of sequence number (the tag), one of device name length, the name, then steps,
// each a byte whose value modulo 8 is: 0 a datagram from the kernel, 1 the same with each message's
// sequence number set to the tag, 2 a datagram from another port, 3 4 5 a receive failing with
// ENOBUFS, EINTR, EBADF, 6 send a request now, 7 the next sendto fails (EINTR or ECONNREFUSED). A
// datagram step is followed by two bytes of length and the bytes.
#include <linux/if.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <deque>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/platform/Platform.h"

namespace {

constexpr int fakeSd = 1000;

struct Queued {
  std::string bytes;
  uint32_t port = 0;
  int error = 0;  // a failing receive instead of a datagram
};

std::deque<Queued> queue;
int sendFailure = 0;
bool acceptOnSend = false;  // sendto queues the kernel's acceptance, as rtnetlink does

void install() {
  Platform::Calls & calls = Platform::calls();
  calls.sendto = [](int fd, void const * data, size_t length, int, sockaddr const *, socklen_t) -> ssize_t {
    FUZZ_CHECK(fd == fakeSd, std::to_string(fd));
    if (sendFailure != 0) {
      errno = sendFailure;
      sendFailure = 0;
      return -1;
    }
    if (acceptOnSend) {
      auto const * request = static_cast<nlmsghdr const *>(data);
      nlmsghdr const header{NLMSG_LENGTH(sizeof(nlmsgerr)), NLMSG_ERROR, 0, request->nlmsg_seq, 0};
      nlmsgerr const accepted{0, *request};
      std::string answer(reinterpret_cast<char const *>(&header), sizeof header);
      answer.append(reinterpret_cast<char const *>(&accepted), sizeof accepted);
      queue.push_back({answer, 0, 0});
    }
    return static_cast<ssize_t>(length);
  };
  calls.recvmsg = [](int fd, msghdr * message, int flags) -> ssize_t {
    FUZZ_CHECK(fd == fakeSd && (flags & MSG_DONTWAIT) != 0, std::to_string(fd));
    if (queue.empty()) {
      errno = EAGAIN;
      return -1;
    }
    Queued const q = std::move(queue.front());
    queue.pop_front();
    if (q.error != 0) {
      errno = q.error;
      return -1;
    }
    size_t const room = message->msg_iov[0].iov_len;
    size_t const n = q.bytes.size() < room ? q.bytes.size() : room;
    std::memcpy(message->msg_iov[0].iov_base, q.bytes.data(), n);
    message->msg_flags = n < q.bytes.size() ? MSG_TRUNC : 0;
    if (message->msg_name != nullptr) {
      sockaddr_nl from{};
      from.nl_family = AF_NETLINK;
      from.nl_pid = q.port;
      std::memcpy(message->msg_name, &from, sizeof from);
      message->msg_namelen = sizeof from;
    }
    return static_cast<ssize_t>(n);
  };
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  install();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  Fuzz::Input in(data, size);
  queue.clear();
  sendFailure = 0;
  int const tag = in.u16();
  std::string const device = in.bytes(in.byte() % 20);
  auto request = [&] {
    int const failure = sendFailure;
    errno = 0;
    bool const sent = Interface::sendNetlinkOperState(fakeSd, device.c_str(), tag, IF_OPER_UP);
    size_t const length = std::strlen(device.c_str());
    // An empty name is refused; one too long for any device is traced and not sent.
    bool const expected = length >= IFNAMSIZ || (length > 0 && (failure == 0 || failure == EINTR));
    FUZZ_CHECK(sent == expected, device);
    if (!sent) FUZZ_CHECK(errno == (length > 0 ? failure : EINVAL), std::to_string(errno));
    if (length >= IFNAMSIZ) sendFailure = 0;
  };
  while (!in.empty()) {
    switch (in.byte() % 8) {
      case 0:
        queue.push_back({in.bytes(in.u16()), 0, 0});
        break;
      case 1:
        queue.push_back({Fuzz::withSeq(in.bytes(in.u16()), static_cast<uint32_t>(tag)), 0, 0});
        break;
      case 2:
        queue.push_back({in.bytes(in.u16()), 4711, 0});
        break;
      case 3:
        queue.push_back({{}, 0, ENOBUFS});
        break;
      case 4:
        queue.push_back({{}, 0, EINTR});
        break;
      case 5:
        queue.push_back({{}, 0, EBADF});
        break;
      case 6:
        request();
        break;
      case 7:
        sendFailure = in.byte() % 2 ? EINTR : ECONNREFUSED;
        break;
    }
  }
  request();
  // The reader remembers a socket whose answer it has not read yet (it drains it before the next
  // request): one request answered at once leaves nothing owed, so that each run starts alike.
  queue.clear();
  sendFailure = 0;
  acceptOnSend = true;
  FUZZ_CHECK(Interface::sendNetlinkOperState(fakeSd, "et1", tag, IF_OPER_UP) && queue.empty(), "settled");
  acceptOnSend = false;
  return 0;
}
