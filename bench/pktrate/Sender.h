// The harness's traffic source: 60-byte frames (Frame.h) out of one device, through an AF_PACKET
// socket that bypasses the queueing discipline (PACKET_QDISC_BYPASS), many frames per sendmmsg.
//
//   PktRate::Sender sender(pair.aIndex, pair.bMac, pair.aMac, runTag);
//   auto r = sender.burst(200000);                 // as fast as it goes, then return
//   auto r = sender.flood(3.0, stopFlag);          // as fast as it goes for 3 s
//   auto r = sender.paced(20000, 10000.0);         // 10,000 frames/s, one frame per call
//
// Each frame carries the next sequence number and the CLOCK_MONOTONIC time at which it was handed
// to the kernel. A frame the kernel refuses (ENOBUFS, EAGAIN) is retried, not counted as sent.
// The socket is bound with protocol 0, so it receives nothing itself.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdint>

#include "bench/pktrate/Frame.h"

namespace PktRate {

struct SendResult {
  uint64_t sent = 0;
  uint64_t refused = 0;  // calls the kernel refused for a while (ENOBUFS / EAGAIN)
  double seconds = 0;
};

class Sender {
 public:
  static constexpr unsigned batch = 64;

  Sender(int ifindex, unsigned char const dst[6], unsigned char const src[6], uint32_t runTag);
  ~Sender();
  Sender(Sender const &) = delete;
  Sender & operator=(Sender const &) = delete;

  SendResult burst(uint64_t frames);
  SendResult flood(double seconds, std::atomic<bool> const & stop);
  SendResult paced(uint64_t frames, double perSecond);

  uint64_t nextSeq() const { return seq_; }

 private:
  // Sends `count` (<= batch) frames, stamped now; returns how many the kernel took.
  unsigned sendBatch(unsigned count, SendResult & result);

  int fd_ = -1;
  uint64_t seq_ = 0;
  unsigned char frames_[batch][frameBytes];
  iovec iov_[batch];
  mmsghdr msgs_[batch];
};

}  // namespace PktRate
