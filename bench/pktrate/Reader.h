// What the packet-rate harness measures: readers of the frames that arrive on one device.
//
// A reader is one way of getting frames from the kernel to user code: a plain recvmsg loop, a ring,
// libpcap, or the library's packet-access manager. Each implementation opens its own socket(s) on
// the device it is given, and on every pump() hands each frame it got to the FrameSink, which plays
// the user's handler (counts the frame, reads its sequence number, or takes its latency).
//
// Adding one is a class and a registration, in a file of its own in this directory:
//
//   class MyReader : public PktRate::Reader {
//     void open(PktRate::ReaderConfig const & cfg) override { ... }    // socket(s) on cfg.ifindex
//     size_t pump(PktRate::FrameSink & sink, int timeoutMs) override {  // wait, then deliver all there is
//       ...; sink.take(data, length); ...
//     }
//     PktRate::KernelStats kernelStats() override { return PktRate::packetStatistics(fd_, total_); }
//     void close() override { ... }
//   };
//   PktRate::ReaderRegistration myReader{{"mine", "what it is", 50, [] { return std::make_unique<MyReader>(); }}};
//
// A reader driven by an event loop (the library's manager) implements pump() as one turn of that
// loop with the given timeout, its handler calling sink.take() for every frame it is given.
//
// The library's readers are looked for under these names, which the summary's ratios need:
// "ours-single" (the bundle's single-frame path), "ours-bulk" (the bulk path) and "ours-ring" (ring
// mode). Each one: a packet-access manager in the current namespace (the lab's), its EtherType
// cfg.ethType, packet reuse on, receive buffer or ring sized with cfg.bufferFor(); the device
// cfg.ifname / cfg.ifindex desired and in its device status directory; a reader on the device's Pam
// that takes every frame it is told of (rxPkt() until null) into sink.take(); pump() = one pass of
// the framework's loop; kernelStats() = packetStatistics() on the bundle's socket; ownCounters() = the
// bundle's and the Pam's drop counters and the packets the packet manager allocated. The harness
// counts their heap allocations like any other reader's.
#pragma once

#include <linux/if_packet.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/pktrate/AllocCount.h"
#include "bench/pktrate/Frame.h"

namespace PktRate {

inline constexpr size_t maxBufferBytes = 256u << 20;

struct ReaderConfig {
  int ifindex = 0;
  std::string ifname;
  uint16_t ethType = frameEthType;
  // The socket's receive buffer, or the ring's size, to ask for at least.
  size_t bufferBytes = 4u << 20;
  // Frames that must fit in that buffer or ring at once (the drain test queues them all before it
  // reads): each reader sizes for its own per-frame footprint, up to maxBufferBytes.
  size_t holdFrames = 0;
  uint32_t maxFrameBytes = 1518;  // the longest frame to deliver whole

  // What to ask for when each held frame takes `bytesPerFrame`.
  size_t bufferFor(size_t bytesPerFrame) const {
    return std::min(std::max(bufferBytes, holdFrames * bytesPerFrame), std::max(bufferBytes, maxBufferBytes));
  }
};

// The kernel's counts for a packet socket since it was opened: frames that reached the socket
// (dropped ones included) and frames dropped there (a full buffer or ring).
struct KernelStats {
  uint64_t packets = 0;
  uint64_t drops = 0;
};

// Adds what PACKET_STATISTICS tells (and resets in the kernel) to `total` and returns the sum.
KernelStats packetStatistics(int fd, KernelStats & total);

// The user's handler. Count mode: counts our frames and reads each one's sequence number. Latency
// mode: also takes, per frame, the time from the sender's stamp to now into a buffer reserved up
// front (nothing is allocated per frame in either mode).
class FrameSink {
 public:
  enum class Mode { count, latency };

  FrameSink(Mode mode, uint32_t runTag, size_t latencyCapacity = 0) : mode_(mode), runTag_(runTag) {
    if (mode == Mode::latency) latenciesNs_.reserve(latencyCapacity);
  }

  void take(unsigned char const * frame, size_t length) {
    uint32_t tag;
    if (length < frameBytes || std::memcmp(frame + markerAt, frameMarker, sizeof frameMarker) != 0 ||
        (std::memcpy(&tag, frame + runTagAt, sizeof tag), tag != runTag_)) {
      ++foreign_;
      return;
    }
    uint64_t seq;
    std::memcpy(&seq, frame + seqAt, sizeof seq);
    seqSum_ += seq;
    if ((++frames_ & 255) == 0 && steadyFromNs_ && !steady_.taken) noteTime(monotonicNs());
    if (mode_ == Mode::latency && latenciesNs_.size() < latenciesNs_.capacity()) {
      uint64_t sentAt;
      std::memcpy(&sentAt, frame + sentAtAt, sizeof sentAt);
      latenciesNs_.push_back(static_cast<int64_t>(monotonicNs() - sentAt));
    }
  }

  uint64_t frames() const { return frames_; }
  uint64_t foreign() const { return foreign_; }
  uint64_t seqSum() const { return seqSum_; }
  std::vector<int64_t> const & latenciesNs() const { return latenciesNs_; }

  // Steady state begins at `atNs` (CLOCK_MONOTONIC): the frames and the process's allocations so
  // far are noted then, by take() (every 256 frames) or by the caller's noteTime(), whichever comes
  // first after that time.
  struct Snapshot {
    bool taken = false;
    uint64_t frames = 0, allocations = 0;
  };
  void steadyFromIs(uint64_t atNs) { steadyFromNs_ = atNs; }
  void noteTime(uint64_t nowNs) {
    if (!steady_.taken && steadyFromNs_ && nowNs >= steadyFromNs_) steady_ = {true, frames_, allocations()};
  }
  Snapshot const & steady() const { return steady_; }

 private:
  Mode mode_;
  uint32_t runTag_;
  uint64_t frames_ = 0;
  uint64_t foreign_ = 0;
  uint64_t seqSum_ = 0;
  uint64_t steadyFromNs_ = 0;
  Snapshot steady_;
  std::vector<int64_t> latenciesNs_;
};

class Reader {
 public:
  virtual ~Reader() = default;
  // Opens on cfg's device. Throws std::runtime_error, having closed what it opened, on failure.
  virtual void open(ReaderConfig const & cfg) = 0;
  // Waits at most timeoutMs (0: not at all) for frames, then hands every frame it can get now to
  // `sink`. Returns how many it handed over.
  virtual size_t pump(FrameSink & sink, int timeoutMs) = 0;
  // The kernel's counts since open().
  virtual KernelStats kernelStats() = 0;
  // The reader's own counters (name, value) over the live test, for readers that have any: its drop
  // counters, and packets its packet manager had to allocate.
  virtual std::vector<std::pair<std::string, uint64_t>> ownCounters() { return {}; }
  // How long the reader may hold frames back before it can deliver them (a ring's block timeout).
  virtual int holdMs() const { return 0; }
  // Closes everything open() opened; safe to call twice.
  virtual void close() = 0;
};

struct ReaderKind {
  std::string name;         // short, for the table and --readers: "recvmsg", "ring-v3", "ours-bulk"
  std::string description;  // one line for the table's legend
  int order = 0;            // position in the table
  std::function<std::unique_ptr<Reader>()> make;
};

// Every registered reader, in `order`.
std::vector<ReaderKind> readerKinds();

struct ReaderRegistration {
  explicit ReaderRegistration(ReaderKind kind);
};

}  // namespace PktRate
