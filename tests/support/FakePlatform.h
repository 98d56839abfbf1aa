// A recording stand-in for the kernel in unit tests. While a FakePlatform lives, every entry of
// Platform::calls(), Ovel::socketAtHook() and Interface::netlinkOperStateHook() records its call and
// then runs a fake; the previous table comes back when it dies.
//
//   IntfsmTest::FakePlatform fake;
//   fake.failNext(FakePlatform::Kind::bind, EADDRINUSE);
//   ... code under test ...
//   EXPECT_EQ(fake.count(FakePlatform::Kind::socketAt), 1u);
//   EXPECT_EQ(fake.openDescriptors().size(), 0u);   // every fake socket was closed
//
// What the fakes do (each can be replaced through behaviour(), which the recorders call):
// - socketAt, socket and open hand out fresh fake descriptors, counting up from firstFakeDescriptor
//   (socket and socketAt real ones after realSocketsIs(true), see below).
//   open succeeds only for paths of the fake file system (see below) and "/run/netns/<name>" for
//   namespaces made with namespaceIs; anything else fails with ENOENT.
// - close of a fake descriptor marks it closed (closing it twice fails with EBADF); close of any
//   other descriptor goes to the previous table, so real descriptors are not leaked.
// - bind and setns succeed. setsockopt stores the value per descriptor, level and option; getsockopt
//   returns the stored value, or an int 0 when none was stored, except SO_RCVBUF, which reads twice
//   the last SO_RCVBUF or SO_RCVBUFFORCE value, or 212992 before any, as the kernel does.
// - ioctl on a fake descriptor fails with ENOTTY; sendto on one records the bytes and succeeds;
//   recvmsg and recvmmsg on one deliver the datagrams queued with queueDatagram, else EAGAIN; poll
//   of fake descriptors reports POLLIN for those with a queued datagram. On other descriptors these
//   calls go to the previous table.
// - stat, lstat and fopen see only the fake file system: paths added with fileIs (fopen reads their
//   content). "/proc/thread-self/ns/net" is there from the start.
// - setNetlinkOperState records the request and returns true; replace it with behaviour() to refuse.
// - inotify_init1 and inotify_add_watch are the real calls (an inotify descriptor the loop can watch).
// - mmap of a fake descriptor maps zeroed private memory of that length (a receive ring the kernel
//   never fills); munmap gives back what the fake mapped. Other mappings go to the previous table.
// A failure queued with failNext wins over the fake: the call is recorded with the
// failure and returns it (-1, null or false, with errno).
//
// Real sockets, on request: after realSocketsIs(true), socket and socketAt hand out one end of an
// AF_UNIX datagram socket pair instead of a number from firstFakeDescriptor on, so that a
// Vorn::FileDescriptor can watch it and the event loop sees it readable for real. Everything else
// stays fake: queueDatagram queues the datagram (with its source address) as before, and the fake
// recvmsg / recvmmsg deliver it as before; the other end of the pair holds one byte in the socket
// while anything is queued, so the descriptor is readable exactly then. close of such a descriptor
// closes both ends; the fake closes any left open when it dies.
//
//   fake.realSocketsIs(true);
//   pam->enabledIs(true);                          // watched on the loop
//   fake.queueDatagram(pam->sd(), frame, &from);
//   loop.runOnce(0);                               // the Pam reads it through its reactor
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/platform/Platform.h"

namespace IntfsmTest {

class FakePlatform {
 public:
  enum class Kind {
    socketAt, setNetlinkOperState, socket, bind, close, setsockopt, getsockopt, ioctl, recvmsg, recvmmsg, sendto,
    poll, open, setns, lstat, stat, fopen, mmap, munmap, inotify_init1, inotify_add_watch,
  };

  // One call as the code under test made it. Field use by kind:
  //   socketAt: a, b, c = domain, type, protocol; text = nsName ("(null)" for null); result = descriptor
  //   socket: a, b, c = domain, type, protocol; result = descriptor
  //   bind: fd; data = the address bytes        close: fd
  //   setsockopt / getsockopt: fd; a = level, b = option; data = the value bytes (setsockopt)
  //   ioctl: fd; a = request        recvmsg / recvmmsg: fd; a = flags; result = bytes / messages
  //   sendto: fd; a = flags; data = the bytes sent        poll: a = count; fd = first descriptor
  //   open: text = path, a = flags; result = descriptor        setns: fd; a = namespace type
  //   lstat / stat / fopen: text = path
  //   setNetlinkOperState: fd = sd; text = device name; a = tag; b = operState; result = 1 or 0
  //   mmap: fd; a = length; result = 1 (0 when it failed)        munmap: a = length
  //   inotify_init1: a = flags        inotify_add_watch: fd; text = path; a = mask
  // `error` is the errno of a failed call, 0 otherwise.
  struct Call {
    Kind kind = Kind::socketAt;
    int fd = -1;
    long a = 0, b = 0, c = 0;
    std::string text;
    std::string data;
    long result = 0;
    int error = 0;
    // `data` read as a T (zero-filled where it is shorter): `call.dataAs<sockaddr_ll>()`.
    template <class T>
    T dataAs() const {
      T value{};
      std::memcpy(&value, data.data(), std::min(sizeof value, data.size()));
      return value;
    }
  };

  struct OperStateRequest {
    int sd;
    std::string deviceName;
    int tag;
    int operState;
    bool operator==(OperStateRequest const &) const = default;
  };

  static constexpr int firstFakeDescriptor = 1000;

  FakePlatform();
  ~FakePlatform();
  FakePlatform(FakePlatform const &) = delete;
  FakePlatform & operator=(FakePlatform const &) = delete;

  std::vector<Call> const & calls() const { return calls_; }
  std::vector<Call> calls(Kind kind) const;
  size_t count(Kind kind) const;
  std::vector<OperStateRequest> operStateRequests() const;
  void clearCalls() { calls_.clear(); }

  // The next `times` calls of `kind` (that `match` accepts, when given) fail with `error`.
  void failNext(Kind kind, int error, unsigned times = 1, std::function<bool(Call const &)> match = nullptr);
  // Failures queued and not yet taken.
  size_t failuresPending() const { return failures_.size(); }

  // Fake descriptors handed out and not yet closed, in ascending order.
  std::vector<int> openDescriptors() const;
  bool isFakeDescriptor(int fd) const;

  // Fake mappings (mmap of a fake descriptor) not yet unmapped.
  size_t openMappings() const { return mappings_.size(); }

  // The fake file system seen by stat, lstat, fopen and open.
  void fileIs(std::string const & path, std::string const & content = "");
  void fileDel(std::string const & path);
  // A namespace that socketAt can enter: the file "/run/netns/<name>".
  void namespaceIs(std::string const & name);

  // Whether socket and socketAt hand out real, pollable descriptors (see above); false at first.
  void realSocketsIs(bool on) { realSockets_ = on; }

  // A datagram that recvmsg / recvmmsg on the fake descriptor `fd` will deliver, `from` as its source.
  void queueDatagram(int fd, std::string bytes, sockaddr_storage const * from = nullptr);
  size_t queuedDatagrams(int fd) const;

  // The system calls and the two composite operations with hooks of their own.
  struct Behaviour : Platform::Calls {
    Ovel::SocketAtHook socketAt;
    Interface::NetlinkOperStateHook setNetlinkOperState;
  };

  // The fakes that the recorders call. Replace an entry to give a call other behaviour; the
  // replacement is still recorded and failures queued with failNext still win over it.
  Behaviour & behaviour() { return behaviour_; }
  // The table that was live before this one, where calls on real descriptors go.
  Platform::Calls const & previous() const { return previous_; }

 private:
  struct Failure {
    int error = 0;
    unsigned times = 0;
    std::function<bool(Call const &)> match;
  };
  struct Datagram {
    std::string bytes;
    sockaddr_storage from;
    socklen_t fromLength;
  };

  template <typename Result, typename Body>
  Result run(Call call, Result failure, Body && body);
  // The recorder of one entry of the table: fills a Call with `fill(call, args...)`, then runs the
  // fake `behaviour_.*entry` through run().
  template <class C, class R, class... A, class Fill>
  std::function<R(A...)> recorder(Kind kind, std::function<R(A...)> C::*entry, std::type_identity_t<R> failure, Fill fill);
  bool takeFailure(Call & call);
  ssize_t deliver(int fd, msghdr * message, int flags);
  int newDescriptor(int fd = -1);  // a fake number, or `fd` (a real socket) recorded as handed out
  int newSocket();
  void installFakes();
  void installRecorders();

  Platform::Calls previous_;
  Ovel::SocketAtHook previousSocketAt_;
  Interface::NetlinkOperStateHook previousSetNetlinkOperState_;
  Behaviour behaviour_;
  std::vector<Call> calls_;
  std::map<Kind, Failure> failures_;
  int nextDescriptor_ = firstFakeDescriptor;
  std::set<int> open_;
  std::set<int> everHandedOut_;
  std::map<std::tuple<int, int, int>, std::string> options_;
  std::map<std::string, std::string> files_;
  std::map<int, std::deque<Datagram>> datagrams_;
  bool realSockets_ = false;
  std::map<int, int> peers_;
  std::map<void *, size_t> mappings_;  // a real socket handed out, and the end the fake keeps
};

char const * kindName(FakePlatform::Kind kind);

}  // namespace IntfsmTest
