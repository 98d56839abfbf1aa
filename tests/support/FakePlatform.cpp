#include "tests/support/FakePlatform.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace IntfsmTest {

namespace {

template <class R>
bool failed(R result) {
  if constexpr (std::is_same_v<R, void *>) return result == MAP_FAILED;
  else if constexpr (std::is_pointer_v<R> || std::is_same_v<R, bool>) return !result;
  else return result < 0;
}

template <class R>
long asLong(R result) {
  if constexpr (std::is_same_v<R, void *>) return result == MAP_FAILED ? 0 : 1;
  else if constexpr (std::is_pointer_v<R>) return result == nullptr ? 0 : 1;
  else return static_cast<long>(result);
}

// The kernel's default receive buffer (net.core.rmem_default) as SO_RCVBUF reports it.
constexpr int defaultRcvBuf = 212992;

std::string bytesOf(void const * data, size_t length) {
  return data == nullptr ? std::string() : std::string(static_cast<char const *>(data), length);
}

}  // namespace

char const * kindName(FakePlatform::Kind kind) {
  static char const * const names[] = {"socketAt", "setNetlinkOperState", "socket", "bind", "close", "setsockopt",
                                       "getsockopt", "ioctl", "recvmsg", "recvmmsg", "sendto", "poll", "open",
                                       "setns", "lstat", "stat", "fopen", "mmap", "munmap",
                                       "inotify_init1", "inotify_add_watch"};
  static_assert(sizeof names / sizeof names[0] == static_cast<size_t>(FakePlatform::Kind::inotify_add_watch) + 1);
  return names[static_cast<size_t>(kind)];
}

FakePlatform::FakePlatform()
    : previous_(Platform::calls()),
      previousSocketAt_(Ovel::socketAtHook()),
      previousSetNetlinkOperState_(Interface::netlinkOperStateHook()) {
  fileIs("/proc/thread-self/ns/net");
  installFakes();
  installRecorders();
}

FakePlatform::~FakePlatform() {
  for (auto const & [fd, peer] : peers_) ::close(fd), ::close(peer);
  for (auto const & [address, length] : mappings_) ::munmap(address, length);
  Platform::calls() = previous_;
  Ovel::socketAtHook() = previousSocketAt_;
  Interface::netlinkOperStateHook() = previousSetNetlinkOperState_;
}

std::vector<FakePlatform::Call> FakePlatform::calls(Kind kind) const {
  std::vector<Call> result;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(result), [kind](Call const & c) { return c.kind == kind; });
  return result;
}

size_t FakePlatform::count(Kind kind) const { return calls(kind).size(); }

std::vector<FakePlatform::OperStateRequest> FakePlatform::operStateRequests() const {
  std::vector<OperStateRequest> result;
  for (Call const & c : calls_) {
    if (c.kind == Kind::setNetlinkOperState) {
      result.push_back({c.fd, c.text, static_cast<int>(c.a), static_cast<int>(c.b)});
    }
  }
  return result;
}

void FakePlatform::failNext(Kind kind, int error, unsigned times, std::function<bool(Call const &)> match) {
  if (times == 0) return;
  failures_[kind] = Failure{error, times, std::move(match)};
}

std::vector<int> FakePlatform::openDescriptors() const { return {open_.begin(), open_.end()}; }

bool FakePlatform::isFakeDescriptor(int fd) const { return everHandedOut_.count(fd) != 0; }

void FakePlatform::fileIs(std::string const & path, std::string const & content) { files_[path] = content; }

void FakePlatform::fileDel(std::string const & path) { files_.erase(path); }

void FakePlatform::namespaceIs(std::string const & name) { fileIs("/run/netns/" + name); }

void FakePlatform::queueDatagram(int fd, std::string bytes, sockaddr_storage const * from) {
  // A real socket is readable while anything is queued: a one-byte token from its peer, sent when the
  // queue fills and taken back out when it empties.
  if (auto peer = peers_.find(fd); peer != peers_.end() && queuedDatagrams(fd) == 0) {
    EXPECT_EQ(::send(peer->second, "", 1, MSG_DONTWAIT), 1);
  }
  Datagram d{std::move(bytes), {}, 0};
  if (from != nullptr) {
    d.from = *from;
    d.fromLength = sizeof d.from;
  }
  datagrams_[fd].push_back(std::move(d));
}

size_t FakePlatform::queuedDatagrams(int fd) const {
  auto it = datagrams_.find(fd);
  return it == datagrams_.end() ? 0 : it->second.size();
}

bool FakePlatform::takeFailure(Call & call) {
  auto it = failures_.find(call.kind);
  if (it == failures_.end()) return false;
  Failure & f = it->second;
  if (f.match && !f.match(call)) return false;
  call.error = f.error;
  if (--f.times == 0) failures_.erase(it);
  return true;
}

template <typename Result, typename Body>
Result FakePlatform::run(Call call, Result failure, Body && body) {
  size_t const index = calls_.size();
  if (takeFailure(call)) {
    call.result = -1;
    calls_.push_back(call);
    errno = call.error;
    return failure;
  }
  calls_.push_back(call);
  errno = 0;
  Result const result = body();
  int const error = errno;
  // The body may have recorded calls of its own: refer to this one by position.
  calls_[index].result = asLong(result);
  calls_[index].error = failed(result) ? error : 0;
  errno = error;
  return result;
}

int FakePlatform::newSocket() {
  if (!realSockets_) return newDescriptor();
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0) return -1;
  peers_[ends[0]] = ends[1];
  return newDescriptor(ends[0]);
}

int FakePlatform::newDescriptor(int fd) {
  if (fd < 0) fd = nextDescriptor_++;
  open_.insert(fd);
  everHandedOut_.insert(fd);
  return fd;
}

ssize_t FakePlatform::deliver(int fd, msghdr * message, int flags) {
  auto it = datagrams_.find(fd);
  if (it == datagrams_.end() || it->second.empty()) {
    errno = EAGAIN;
    return -1;
  }
  Datagram d = std::move(it->second.front());
  it->second.pop_front();
  if (peers_.count(fd) != 0 && it->second.empty()) {
    char token;
    ::recv(fd, &token, 1, MSG_DONTWAIT);
  }
  size_t copied = 0;
  for (size_t i = 0; i < message->msg_iovlen && copied < d.bytes.size(); ++i) {
    size_t const n = std::min(message->msg_iov[i].iov_len, d.bytes.size() - copied);
    std::memcpy(message->msg_iov[i].iov_base, d.bytes.data() + copied, n);
    copied += n;
  }
  message->msg_flags = copied < d.bytes.size() ? MSG_TRUNC : 0;
  if (message->msg_name != nullptr) {
    socklen_t const n = std::min(message->msg_namelen, d.fromLength);
    std::memcpy(message->msg_name, &d.from, n);
    message->msg_namelen = d.fromLength;
  }
  message->msg_controllen = 0;
  return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? d.bytes.size() : copied);
}

void FakePlatform::installFakes() {
  Behaviour & b = behaviour_;
  b.socketAt = [this](int, int, int, char const *) { return newSocket(); };
  b.socket = [this](int, int, int) { return newSocket(); };
  b.setNetlinkOperState = [](int, char const *, int, int) { return true; };
  b.bind = [](int, sockaddr const *, socklen_t) { return 0; };
  b.close = [this](int fd) {
    if (!isFakeDescriptor(fd)) return previous_.close(fd);
    if (open_.erase(fd) == 0) {
      errno = EBADF;
      return -1;
    }
    datagrams_.erase(fd);
    if (auto peer = peers_.find(fd); peer != peers_.end()) {
      // The number goes back to the kernel, which may hand it to anyone: no longer a fake one.
      ::close(fd), ::close(peer->second);
      peers_.erase(peer);
      everHandedOut_.erase(fd);
    }
    return 0;
  };
  b.setsockopt = [this](int fd, int level, int name, void const * value, socklen_t length) {
    if (level == SOL_SOCKET && name == SO_RCVBUFFORCE) name = SO_RCVBUF;
    options_[{fd, level, name}] = bytesOf(value, length);
    return 0;
  };
  b.getsockopt = [this](int fd, int level, int name, void * value, socklen_t * length) {
    std::string stored(sizeof(int), '\0');
    auto it = options_.find({fd, level, name});
    if (it != options_.end()) stored = it->second;
    if (level == SOL_SOCKET && name == SO_RCVBUF) {
      int requested = defaultRcvBuf / 2;
      if (it != options_.end() && it->second.size() >= sizeof(int)) std::memcpy(&requested, it->second.data(), sizeof(int));
      int const granted = requested * 2;
      stored.assign(reinterpret_cast<char const *>(&granted), sizeof granted);
    }
    socklen_t const n = std::min<socklen_t>(*length, static_cast<socklen_t>(stored.size()));
    std::memcpy(value, stored.data(), n);
    *length = n;
    // As the kernel does, reading a packet socket's statistics starts them again from 0.
    if (level == SOL_PACKET && name == PACKET_STATISTICS && it != options_.end()) options_.erase(it);
    return 0;
  };
  b.ioctl = [this](int fd, unsigned long request, void * argument) {
    if (!isFakeDescriptor(fd)) return previous_.ioctl(fd, request, argument);
    errno = ENOTTY;
    return -1;
  };
  b.recvmsg = [this](int fd, msghdr * message, int flags) -> ssize_t {
    if (!isFakeDescriptor(fd)) return previous_.recvmsg(fd, message, flags);
    return deliver(fd, message, flags);
  };
  b.recvmmsg = [this](int fd, mmsghdr * messages, unsigned count, int flags, timespec * timeout) {
    if (!isFakeDescriptor(fd)) return previous_.recvmmsg(fd, messages, count, flags, timeout);
    unsigned n = 0;
    for (ssize_t length; n < count && (length = deliver(fd, &messages[n].msg_hdr, flags)) >= 0; ++n) {
      messages[n].msg_len = static_cast<unsigned>(length);
    }
    if (n == 0) {
      errno = EAGAIN;
      return -1;
    }
    return static_cast<int>(n);
  };
  b.sendto = [this](int fd, void const * data, size_t length, int flags, sockaddr const * to, socklen_t toLength) -> ssize_t {
    if (!isFakeDescriptor(fd)) return previous_.sendto(fd, data, length, flags, to, toLength);
    return static_cast<ssize_t>(length);
  };
  b.poll = [this](pollfd * fds, nfds_t count, int timeoutMs) {
    bool allFake = count > 0;
    for (nfds_t i = 0; i < count; ++i) allFake = allFake && isFakeDescriptor(fds[i].fd);
    if (!allFake) return previous_.poll(fds, count, timeoutMs);
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
      fds[i].revents = 0;
      if ((fds[i].events & POLLIN) != 0 && queuedDatagrams(fds[i].fd) != 0) fds[i].revents |= POLLIN;
      if ((fds[i].events & POLLOUT) != 0) fds[i].revents |= POLLOUT;
      if (fds[i].revents != 0) ++ready;
    }
    return ready;
  };
  b.mmap = [this](void * address, size_t length, int protection, int flags, int fd, off_t offset) {
    if (!isFakeDescriptor(fd)) return previous_.mmap(address, length, protection, flags, fd, offset);
    void * mapped = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped != MAP_FAILED) mappings_[mapped] = length;
    return mapped;
  };
  b.munmap = [this](void * address, size_t length) {
    if (mappings_.erase(address) == 0) return previous_.munmap(address, length);
    return ::munmap(address, length);
  };
  b.open = [this](char const * path, int) {
    if (files_.count(path) == 0) {
      errno = ENOENT;
      return -1;
    }
    return newDescriptor();
  };
  b.setns = [](int, int) { return 0; };
  b.inotify_init1 = previous_.inotify_init1;
  b.inotify_add_watch = previous_.inotify_add_watch;
  auto fakeStat = [this](char const * path, struct stat * result) {
    auto it = files_.find(path);
    if (it == files_.end()) {
      errno = ENOENT;
      return -1;
    }
    *result = {};
    result->st_mode = S_IFREG | 0644;
    result->st_size = static_cast<off_t>(it->second.size());
    return 0;
  };
  b.lstat = fakeStat;
  b.stat = fakeStat;
  b.fopen = [this](char const * path, char const *) -> FILE * {
    auto it = files_.find(path);
    if (it == files_.end()) {
      errno = ENOENT;
      return nullptr;
    }
    // A stream over its own copy of the content; fclose frees it.
    FILE * stream = fmemopen(nullptr, it->second.size() + 1, "w+");
    if (stream == nullptr) return nullptr;
    std::fwrite(it->second.data(), 1, it->second.size(), stream);
    std::rewind(stream);
    return stream;
  };
}

template <class C, class R, class... A, class Fill>
std::function<R(A...)> FakePlatform::recorder(Kind kind, std::function<R(A...)> C::*entry, std::type_identity_t<R> failure,
                                              Fill fill) {
  return [this, kind, entry, failure, fill](A... args) -> R {
    Call c;
    c.kind = kind;
    fill(c, args...);
    return run(c, failure, [&] { return (behaviour_.*entry)(args...); });
  };
}

void FakePlatform::installRecorders() {
  using B = Behaviour;
  Platform::Calls & live = Platform::calls();
  auto const descriptor = [](Call & c, int fd, auto...) { c.fd = fd; };
  auto const path = [](Call & c, char const * p, auto...) { c.text = p; };
  auto const socketArgs = [](Call & c, int domain, int type, int protocol) { c.a = domain, c.b = type, c.c = protocol; };
  Ovel::socketAtHook() = recorder(Kind::socketAt, &B::socketAt, -1, [socketArgs](Call & c, int d, int t, int p, char const * ns) {
    socketArgs(c, d, t, p);
    c.text = ns == nullptr ? "(null)" : ns;
  });
  Interface::netlinkOperStateHook() =
      recorder(Kind::setNetlinkOperState, &B::setNetlinkOperState, false, [](Call & c, int sd, char const * name, int tag, int state) {
        c.fd = sd, c.text = name == nullptr ? "(null)" : name, c.a = tag, c.b = state;
      });
  live.socket = recorder(Kind::socket, &B::socket, -1, socketArgs);
  live.bind = recorder(Kind::bind, &B::bind, -1, [](Call & c, int fd, sockaddr const * address, socklen_t length) {
    c.fd = fd, c.data = bytesOf(address, length);
  });
  live.close = recorder(Kind::close, &B::close, -1, descriptor);
  live.setsockopt = recorder(Kind::setsockopt, &B::setsockopt, -1,
                             [](Call & c, int fd, int level, int name, void const * value, socklen_t length) {
                               c.fd = fd, c.a = level, c.b = name, c.data = bytesOf(value, length);
                             });
  live.getsockopt = recorder(Kind::getsockopt, &B::getsockopt, -1,
                             [](Call & c, int fd, int level, int name, auto...) { c.fd = fd, c.a = level, c.b = name; });
  live.ioctl = recorder(Kind::ioctl, &B::ioctl, -1,
                        [](Call & c, int fd, unsigned long request, void *) { c.fd = fd, c.a = static_cast<long>(request); });
  live.recvmsg = recorder(Kind::recvmsg, &B::recvmsg, -1, [](Call & c, int fd, msghdr *, int flags) { c.fd = fd, c.a = flags; });
  live.recvmmsg = recorder(Kind::recvmmsg, &B::recvmmsg, -1,
                           [](Call & c, int fd, mmsghdr *, unsigned, int flags, timespec *) { c.fd = fd, c.a = flags; });
  live.sendto = recorder(Kind::sendto, &B::sendto, -1, [](Call & c, int fd, void const * data, size_t length, int flags, auto...) {
    c.fd = fd, c.a = flags, c.data = bytesOf(data, length);
  });
  live.poll = recorder(Kind::poll, &B::poll, -1, [](Call & c, pollfd * fds, nfds_t count, int) {
    c.a = static_cast<long>(count), c.fd = count > 0 ? fds[0].fd : -1;
  });
  live.mmap = recorder(Kind::mmap, &B::mmap, MAP_FAILED,
                       [](Call & c, void *, size_t length, int, int, int fd, off_t) { c.fd = fd, c.a = static_cast<long>(length); });
  live.munmap = recorder(Kind::munmap, &B::munmap, -1, [](Call & c, void *, size_t length) { c.a = static_cast<long>(length); });
  live.open = recorder(Kind::open, &B::open, -1, [](Call & c, char const * p, int flags) { c.text = p, c.a = flags; });
  live.setns = recorder(Kind::setns, &B::setns, -1, [](Call & c, int fd, int nsType) { c.fd = fd, c.a = nsType; });
  live.lstat = recorder(Kind::lstat, &B::lstat, -1, path);
  live.stat = recorder(Kind::stat, &B::stat, -1, path);
  live.fopen = recorder(Kind::fopen, &B::fopen, nullptr, path);
  live.inotify_init1 = recorder(Kind::inotify_init1, &B::inotify_init1, -1, [](Call & c, int flags) { c.a = flags; });
  live.inotify_add_watch = recorder(Kind::inotify_add_watch, &B::inotify_add_watch, -1,
                                    [](Call & c, int fd, char const * p, uint32_t mask) { c.fd = fd, c.text = p, c.a = mask; });
}

}  // namespace IntfsmTest
