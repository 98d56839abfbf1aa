// The frames the packet-rate harness sends: 60 bytes (the shortest Ethernet frame without its check
// sequence), of the first local experimental EtherType, carrying a marker, a sequence number and the
// sender's CLOCK_MONOTONIC time in nanoseconds, so that a reader can tell our frames from anything
// else and measure how long each one took to reach it.
//
//   offset  0  destination MAC        6  source MAC        12  EtherType 0x88b5
//   offset 14  marker "IFSM" (4)     18  run tag (4)       22  sequence (8)   30  sent at, ns (8)
//   offset 38  zero padding up to 60
#pragma once

#include <time.h>

#include <cstdint>
#include <cstring>

namespace PktRate {

inline constexpr uint16_t frameEthType = 0x88b5;
inline constexpr size_t frameBytes = 60;
inline constexpr size_t markerAt = 14;
inline constexpr size_t runTagAt = 18;
inline constexpr size_t seqAt = 22;
inline constexpr size_t sentAtAt = 30;
inline constexpr unsigned char frameMarker[4] = {'I', 'F', 'S', 'M'};

inline uint64_t monotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

inline uint64_t threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Fills the fixed part of a frame: addresses, EtherType, marker and run tag.
inline void frameInit(unsigned char * frame, unsigned char const dst[6], unsigned char const src[6], uint32_t runTag) {
  std::memset(frame, 0, frameBytes);
  std::memcpy(frame, dst, 6);
  std::memcpy(frame + 6, src, 6);
  frame[12] = frameEthType >> 8;
  frame[13] = frameEthType & 0xff;
  std::memcpy(frame + markerAt, frameMarker, sizeof frameMarker);
  std::memcpy(frame + runTagAt, &runTag, sizeof runTag);
}

inline void frameStamp(unsigned char * frame, uint64_t seq, uint64_t sentAtNs) {
  std::memcpy(frame + seqAt, &seq, sizeof seq);
  std::memcpy(frame + sentAtAt, &sentAtNs, sizeof sentAtNs);
}

}  // namespace PktRate
