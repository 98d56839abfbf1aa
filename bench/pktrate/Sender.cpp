#include "bench/pktrate/Sender.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace PktRate {

namespace {

std::string errnoText(std::string const & what) { return what + ": " + std::strerror(errno); }

void sleepUntilNs(uint64_t at) {
  timespec ts{static_cast<time_t>(at / 1000000000u), static_cast<long>(at % 1000000000u)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

}  // namespace

Sender::Sender(int ifindex, unsigned char const dst[6], unsigned char const src[6], uint32_t runTag) {
  fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error(errnoText("sender socket(AF_PACKET)"));
  int const one = 1;
  int const sendBuffer = 4 << 20;
  sockaddr_ll at{};
  at.sll_family = AF_PACKET;
  at.sll_protocol = 0;  // send only
  at.sll_ifindex = ifindex;
  if (setsockopt(fd_, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one) != 0 ||
      (setsockopt(fd_, SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer, sizeof sendBuffer) != 0 &&
       setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer) != 0) ||
      bind(fd_, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
    std::string const text = errnoText("sender socket set-up");
    close(fd_);
    throw std::runtime_error(text);
  }
  for (unsigned i = 0; i < batch; ++i) {
    frameInit(frames_[i], dst, src, runTag);
    iov_[i] = {frames_[i], frameBytes};
    msgs_[i] = {};
    msgs_[i].msg_hdr.msg_iov = &iov_[i];
    msgs_[i].msg_hdr.msg_iovlen = 1;
  }
  // Wake-ups for the paced mode on time, not up to 50 us late.
  prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
}

Sender::~Sender() {
  if (fd_ >= 0) close(fd_);
}

unsigned Sender::sendBatch(unsigned count, SendResult & result) {
  uint64_t const now = monotonicNs();
  for (unsigned i = 0; i < count; ++i) frameStamp(frames_[i], seq_ + i, now);
  int const sent = sendmmsg(fd_, msgs_, count, 0);
  if (sent > 0) {
    seq_ += static_cast<unsigned>(sent);
    result.sent += static_cast<unsigned>(sent);
    return static_cast<unsigned>(sent);
  }
  if (errno == ENOBUFS || errno == EAGAIN) {
    ++result.refused;
    sched_yield();
    return 0;
  }
  if (errno == EINTR) return 0;
  throw std::runtime_error(errnoText("sendmmsg"));
}

SendResult Sender::burst(uint64_t frames) {
  SendResult result;
  uint64_t const t0 = monotonicNs();
  while (result.sent < frames) {
    uint64_t const left = frames - result.sent;
    sendBatch(static_cast<unsigned>(left < batch ? left : batch), result);
  }
  result.seconds = static_cast<double>(monotonicNs() - t0) * 1e-9;
  return result;
}

SendResult Sender::flood(double seconds, std::atomic<bool> const & stop) {
  SendResult result;
  uint64_t const t0 = monotonicNs();
  uint64_t const end = t0 + static_cast<uint64_t>(seconds * 1e9);
  uint64_t now = t0;
  while (now < end && !stop.load(std::memory_order_relaxed)) {
    sendBatch(batch, result);
    now = monotonicNs();
  }
  result.seconds = static_cast<double>(now - t0) * 1e-9;
  return result;
}

SendResult Sender::paced(uint64_t frames, double perSecond) {
  SendResult result;
  double const periodNs = 1e9 / perSecond;
  uint64_t const t0 = monotonicNs();
  for (uint64_t i = 0; result.sent < frames; ++i) {
    sleepUntilNs(t0 + static_cast<uint64_t>(static_cast<double>(i) * periodNs));
    while (sendBatch(1, result) == 0) {
    }
  }
  result.seconds = static_cast<double>(monotonicNs() - t0) * 1e-9;
  return result;
}

}  // namespace PktRate
