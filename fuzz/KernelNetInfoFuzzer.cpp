// The rtnetlink link decoder of the kernel information (KernelNetInfo::Status), fed through the
// platform table: the status's socket is one end of a real socket pair (so the event loop watches a
// real descriptor, kept readable), and recvmsg hands out what the input scripts instead of what the
// socket holds: dumps, events, overruns, acknowledgements, datagrams from other ports, cut ones.
// After every step the Root must be self-consistent (its three views name the same devices), the
// status's flags must agree, and at the end, disabled, it must hold no descriptor and no watch.
//
// Input: steps, each a byte whose value modulo 11 is: 0 a datagram from the kernel; 1 the same with
// each whole message's sequence number set, when it is read, to the last dump request's; 2 a datagram from another
// port; 3 a datagram cut short (MSG_TRUNC); 4 5 6 a receive failing with ENOBUFS, EINTR, EBADF; 7 a
// pass of the loop; 8 time moves on by the next byte in 20 ms units, then a pass; 9 disable and enable
// again; 10 the next sendto (a dump request) fails. Datagram steps are followed by two bytes of
// length and the bytes. The steps before the first 7, 8 or 9 are queued before the status is enabled,
// so that enabling reads them as its first dump.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <map>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/System.h"

namespace {

struct Queued {
  std::string bytes;
  uint32_t port = 0;
  bool cut = false;
  int error = 0;         // a failing receive instead of a datagram
  bool ofDump = false;   // its messages answer the last dump request, whenever that was sent
};

std::deque<Queued> queue;
std::map<int, int> pairs;  // the status's end -> the end kept here, holding one byte
uint32_t lastDumpSeq = 0;
int sendFailure = 0;

void install() {
  Ovel::socketAtHook() = [](int, int, int, char const *) {
    int ends[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, std::to_string(errno));
    FUZZ_CHECK(::write(ends[1], "", 1) == 1, "a byte keeps the status's end readable");
    pairs[ends[0]] = ends[1];
    return ends[0];
  };
  Platform::Calls & calls = Platform::calls();
  calls.bind = [](int fd, sockaddr const *, socklen_t) { return pairs.count(fd) ? 0 : (errno = EBADF, -1); };
  calls.setsockopt = [](int fd, int, int, void const *, socklen_t) { return pairs.count(fd) ? 0 : (errno = EBADF, -1); };
  calls.close = [](int fd) {
    auto const pair = pairs.find(fd);
    FUZZ_CHECK(pair != pairs.end(), "close of a descriptor the status does not own: " + std::to_string(fd));
    ::close(pair->second);
    pairs.erase(pair);
    return ::close(fd);
  };
  calls.sendto = [](int fd, void const * data, size_t length, int, sockaddr const *, socklen_t) -> ssize_t {
    FUZZ_CHECK(pairs.count(fd) == 1, std::to_string(fd));
    if (sendFailure != 0) {
      errno = sendFailure;
      sendFailure = 0;
      return -1;
    }
    auto const * nlh = static_cast<nlmsghdr const *>(data);
    FUZZ_CHECK(length >= sizeof *nlh && nlh->nlmsg_len == length && nlh->nlmsg_type == RTM_GETLINK, "a dump request");
    lastDumpSeq = nlh->nlmsg_seq;
    return static_cast<ssize_t>(length);
  };
  calls.poll = [](pollfd * fds, nfds_t count, int) {
    FUZZ_CHECK(count == 1 && pairs.count(fds[0].fd) == 1, "poll of the status's socket");
    if (queue.empty()) return (errno = EIO, -1);  // finishes the first dump on the loop
    fds[0].revents = POLLIN;
    return 1;
  };
  calls.recvmsg = [](int fd, msghdr * message, int) -> ssize_t {
    FUZZ_CHECK(pairs.count(fd) == 1, std::to_string(fd));
    if (queue.empty()) return (errno = EAGAIN, -1);
    Queued q = std::move(queue.front());
    queue.pop_front();
    if (q.error != 0) return (errno = q.error, -1);
    if (q.ofDump) q.bytes = Fuzz::withSeq(std::move(q.bytes), lastDumpSeq);
    size_t const room = message->msg_iov[0].iov_len;
    size_t const n = q.bytes.size() < room ? q.bytes.size() : room;
    std::memcpy(message->msg_iov[0].iov_base, q.bytes.data(), n);
    message->msg_flags = q.cut || n < q.bytes.size() ? MSG_TRUNC : 0;
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

// The Root's three views name the same devices; the status's flags agree with each other.
void checkConsistent(KernelNetInfo::Status const & status, Vorn::ActivityManager const & loop) {
  auto const & root = *status.root();
  uint32_t const devices = root.interfaceByIfIndexs();
  FUZZ_CHECK(root.interfaceByDeviceNames() == devices && root.deviceNameCaches() == devices, std::to_string(devices));
  for (auto const & e : root.interfaceByIfIndexIter()) {
    KernelNetInfo::Interface const & i = e.value;
    FUZZ_CHECK(e.key != 0 && i.ifIndex() == e.key && !i.deviceNameBytes().empty(), std::to_string(e.key));
    FUZZ_CHECK(root.interfaceByDeviceName(i.deviceName()) == i, std::string(i.deviceNameBytes().view()));
    FUZZ_CHECK(root.deviceNameCache(e.key) == i.deviceName(), std::string(i.deviceNameBytes().view()));
  }
  if (status.synced()) FUZZ_CHECK(!status.dumpInProgress() && !status.redumpPending(), "synced means settled");
  bool const open = status.descriptor() >= 0;
  FUZZ_CHECK(open == status.enabled() && loop.watches() == (open ? 1u : 0u), std::to_string(loop.watches()));
}

void enable(KernelNetInfo::Status & status) {
  try {
    status.enabledIs(true);
  } catch (Vorn::ErrnoException const &) {
    FUZZ_CHECK(!status.enabled() && status.descriptor() < 0, "a failed enable leaves nothing open");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  install();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  static Vorn::ActivityManager loop;
  Vorn::System::testTimeIs(1000.0);
  queue.clear();
  lastDumpSeq = 0;
  sendFailure = 0;
  Fuzz::Input in(data, size);
  Vorn::Ptr<KernelNetInfo::Status> status =
      KernelNetInfo::Status::statusNew("kni", Ovel::NamespaceName(Vorn::String("blue")), nullptr, loop);
  bool enabled = false;
  while (!in.empty()) {
    uint8_t const step = in.byte() % 11;
    if (!enabled && step >= 7 && step <= 9) {
      enable(*status);
      enabled = true;
      checkConsistent(*status, loop);
      if (step == 9) continue;
    }
    switch (step) {
      case 0:
        queue.push_back({in.bytes(in.u16()), 0, false, 0});
        break;
      case 1:
        queue.push_back({in.bytes(in.u16()), 0, false, 0, true});
        break;
      case 2:
        queue.push_back({in.bytes(in.u16()), 4711, false, 0});
        break;
      case 3:
        queue.push_back({in.bytes(in.u16()), 0, true, 0});
        break;
      case 4:
        queue.push_back({{}, 0, false, ENOBUFS});
        break;
      case 5:
        queue.push_back({{}, 0, false, EINTR});
        break;
      case 6:
        queue.push_back({{}, 0, false, EBADF});
        break;
      case 7:
        loop.runOnce(0);
        break;
      case 8:
        Vorn::System::testTimeIs(Vorn::System::currentTime() + 0.02 * in.byte());
        loop.runOnce(0);
        break;
      case 9:
        status->enabledIs(false);
        enable(*status);
        break;
      case 10:
        sendFailure = ENOBUFS;
        break;
    }
    if (enabled) checkConsistent(*status, loop);
  }
  if (!enabled) enable(*status);
  loop.runOnce(0);
  checkConsistent(*status, loop);
  status->enabledIs(false);
  checkConsistent(*status, loop);
  FUZZ_CHECK(pairs.empty(), std::to_string(pairs.size()) + " sockets left open");
  status = nullptr;
  return 0;
}
