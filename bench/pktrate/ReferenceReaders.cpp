// Reference readers: what a user writes without the library, a plain loop on the system calls (or
// on libpcap), so that their cost is the kernel's and the API's, not ours.
//
// The socket readers ask for what the library's own receive path asks for: the sender's address
// (msg_name) and PACKET_AUXDATA, whose VLAN tag they read for every frame. The ratio of their cost
// to the library's then shows the library's dispatch alone.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/pktrate/Reader.h"

namespace PktRate {

namespace {

std::string errnoText(std::string const & what) { return what + ": " + std::strerror(errno); }

bool waitReadable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  int r;
  while ((r = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  return r > 0;
}

// A packet socket for `cfg`'s EtherType, not yet bound. `receiveBuffer`: also size its receive buffer.
int packetSocket(ReaderConfig const & cfg, bool receiveBuffer) {
  int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(cfg.ethType));
  if (fd < 0) throw std::runtime_error(errnoText("socket(AF_PACKET)"));
  int const one = 1;
  if (setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) != 0) {
    int const saved = errno;
    ::close(fd);
    errno = saved;
    throw std::runtime_error(errnoText("PACKET_AUXDATA"));
  }
  if (receiveBuffer) {
    // An skb of a 60-byte frame is charged about 1 KiB (its truesize) against the buffer.
    int const bytes = static_cast<int>(cfg.bufferFor(1280));
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0 &&
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) != 0) {
      int const saved = errno;
      ::close(fd);
      errno = saved;
      throw std::runtime_error(errnoText("SO_RCVBUF"));
    }
  }
  return fd;
}

void bindTo(int fd, ReaderConfig const & cfg) {
  sockaddr_ll at{};
  at.sll_family = AF_PACKET;
  at.sll_protocol = htons(cfg.ethType);
  at.sll_ifindex = cfg.ifindex;
  if (bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
    int const saved = errno;
    ::close(fd);
    errno = saved;
    throw std::runtime_error(errnoText("bind(AF_PACKET)"));
  }
}

// The VLAN tag the kernel took off the frame, from PACKET_AUXDATA (0 when none).
uint16_t vlanOf(msghdr const & m) {
  for (cmsghdr const * c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(const_cast<msghdr *>(&m), const_cast<cmsghdr *>(c))) {
    if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata aux;
    std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if (aux.tp_status & TP_STATUS_VLAN_VALID) return aux.tp_vlan_tci;
  }
  return 0;
}

class SocketReader : public Reader {
 public:
  ~SocketReader() override { SocketReader::close(); }
  KernelStats kernelStats() override { return packetStatistics(fd_, total_); }
  void close() override {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 protected:
  int fd_ = -1;
  KernelStats total_;
  uint64_t vlanSum_ = 0;  // kept so that reading the tag is not optimized away
};

// One recvmsg per frame until the socket is empty.
class RecvmsgReader final : public SocketReader {
 public:
  void open(ReaderConfig const & cfg) override {
    maxFrame_ = cfg.maxFrameBytes;
    fd_ = packetSocket(cfg, true);
    bindTo(fd_, cfg);
  }
  size_t pump(FrameSink & sink, int timeoutMs) override {
    if (timeoutMs > 0 && !waitReadable(fd_, timeoutMs)) return 0;
    size_t n = 0;
    for (;;) {
      iovec iov{buffer_, maxFrame_};
      msghdr m{};
      m.msg_name = &from_;
      m.msg_namelen = sizeof from_;
      m.msg_iov = &iov;
      m.msg_iovlen = 1;
      m.msg_control = control_;
      m.msg_controllen = sizeof control_;
      ssize_t const length = recvmsg(fd_, &m, MSG_DONTWAIT);
      if (length < 0) {
        if (errno == EINTR) continue;
        return n;
      }
      vlanSum_ += vlanOf(m);
      sink.take(buffer_, static_cast<size_t>(length));
      ++n;
    }
  }

 private:
  uint32_t maxFrame_ = 1518;
  alignas(64) unsigned char buffer_[9216];
  sockaddr_ll from_{};
  alignas(cmsghdr) char control_[CMSG_SPACE(sizeof(tpacket_auxdata))];
};

// recvmmsg of up to 128 frames into buffers set up once, until a read comes back short.
class RecvmmsgReader final : public SocketReader {
 public:
  static constexpr unsigned batch = 128;

  void open(ReaderConfig const & cfg) override {
    maxFrame_ = cfg.maxFrameBytes;
    buffers_.assign(static_cast<size_t>(batch) * maxFrame_, 0);
    for (unsigned i = 0; i < batch; ++i) {
      iov_[i] = {buffers_.data() + static_cast<size_t>(i) * maxFrame_, maxFrame_};
      msgs_[i] = {};
      msgs_[i].msg_hdr.msg_name = &from_[i];
      msgs_[i].msg_hdr.msg_iov = &iov_[i];
      msgs_[i].msg_hdr.msg_iovlen = 1;
      msgs_[i].msg_hdr.msg_control = control_[i];
    }
    fd_ = packetSocket(cfg, true);
    bindTo(fd_, cfg);
  }
  size_t pump(FrameSink & sink, int timeoutMs) override {
    if (timeoutMs > 0 && !waitReadable(fd_, timeoutMs)) return 0;
    size_t n = 0;
    for (;;) {
      for (unsigned i = 0; i < batch; ++i) {
        msgs_[i].msg_hdr.msg_namelen = sizeof from_[i];
        msgs_[i].msg_hdr.msg_controllen = sizeof control_[i];
      }
      int const got = recvmmsg(fd_, msgs_, batch, MSG_DONTWAIT, nullptr);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return n;
      for (int i = 0; i < got; ++i) {
        vlanSum_ += vlanOf(msgs_[i].msg_hdr);
        sink.take(static_cast<unsigned char const *>(iov_[i].iov_base), msgs_[i].msg_len);
      }
      n += static_cast<size_t>(got);
      if (got < static_cast<int>(batch)) return n;
    }
  }

 private:
  uint32_t maxFrame_ = 1518;
  std::vector<unsigned char> buffers_;
  mmsghdr msgs_[batch];
  iovec iov_[batch];
  sockaddr_ll from_[batch];
  alignas(cmsghdr) char control_[batch][CMSG_SPACE(sizeof(tpacket_auxdata))];
};

// A PACKET_RX_RING reader of our own, TPACKET_V3: the kernel fills blocks of frames and hands each
// over when it is full or when the retire timer (1 ms here) fires.
class RingV3Reader final : public SocketReader {
 public:
  static constexpr unsigned blockBytes = 1u << 17;
  static constexpr unsigned retireMs = 1;

  ~RingV3Reader() override { RingV3Reader::close(); }
  void open(ReaderConfig const & cfg) override {
    fd_ = packetSocket(cfg, false);
    int const version = TPACKET_V3;
    tpacket_req3 req{};
    req.tp_block_size = blockBytes;
    // A 60-byte frame takes 144 bytes of a block, but the retire timer closes blocks that are far from
    // full while frames are queued for a drain that has not started: count 1 KiB each.
    req.tp_block_nr = static_cast<unsigned>(std::max<size_t>(cfg.bufferFor(1024) / blockBytes, 4));
    req.tp_frame_size = 2048;
    req.tp_frame_nr = req.tp_block_nr * (blockBytes / req.tp_frame_size);
    req.tp_retire_blk_tov = retireMs;
    if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0) {
      int const saved = errno;
      close();
      errno = saved;
      throw std::runtime_error(errnoText("TPACKET_V3 ring"));
    }
    blocks_ = req.tp_block_nr;
    ringBytes_ = static_cast<size_t>(blocks_) * blockBytes;
    void * ring = mmap(nullptr, ringBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (ring == MAP_FAILED) {
      int const saved = errno;
      close();
      errno = saved;
      throw std::runtime_error(errnoText("mmap ring"));
    }
    ring_ = static_cast<unsigned char *>(ring);
    bindTo(fd_, cfg);
  }
  size_t pump(FrameSink & sink, int timeoutMs) override {
    size_t n = drainBlocks(sink);
    if (n == 0 && timeoutMs > 0 && waitReadable(fd_, timeoutMs)) n = drainBlocks(sink);
    return n;
  }
  int holdMs() const override { return 10 * retireMs; }
  void close() override {
    if (ring_) munmap(ring_, ringBytes_);
    ring_ = nullptr;
    SocketReader::close();
  }

 private:
  size_t drainBlocks(FrameSink & sink) {
    size_t n = 0;
    for (;;) {
      auto * block = reinterpret_cast<tpacket_block_desc *>(ring_ + static_cast<size_t>(next_) * blockBytes);
      if (!(__atomic_load_n(&block->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER)) return n;
      uint32_t const count = block->hdr.bh1.num_pkts;
      auto * frame = reinterpret_cast<unsigned char *>(block) + block->hdr.bh1.offset_to_first_pkt;
      for (uint32_t i = 0; i < count; ++i) {
        auto const * h = reinterpret_cast<tpacket3_hdr const *>(frame);
        if (h->tp_status & TP_STATUS_VLAN_VALID) vlanSum_ += h->hv1.tp_vlan_tci;
        sink.take(frame + h->tp_mac, h->tp_snaplen);
        frame += h->tp_next_offset;
      }
      n += count;
      __atomic_store_n(&block->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
      next_ = (next_ + 1) % blocks_;
    }
  }

  unsigned char * ring_ = nullptr;
  size_t ringBytes_ = 0;
  unsigned blocks_ = 0;
  unsigned next_ = 0;
};

// A PACKET_RX_RING reader of our own, TPACKET_V2: fixed 2048-byte slots, each frame handed over as
// soon as the kernel has written it.
class RingV2Reader final : public SocketReader {
 public:
  static constexpr unsigned slotBytes = 2048;
  static constexpr unsigned blockBytes = 1u << 16;

  ~RingV2Reader() override { RingV2Reader::close(); }
  void open(ReaderConfig const & cfg) override {
    fd_ = packetSocket(cfg, false);
    int const version = TPACKET_V2;
    tpacket_req req{};
    req.tp_block_size = blockBytes;
    req.tp_block_nr = static_cast<unsigned>(std::max<size_t>(cfg.bufferFor(slotBytes) / blockBytes, 4));
    req.tp_frame_size = slotBytes;
    req.tp_frame_nr = req.tp_block_nr * (blockBytes / slotBytes);
    if (setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0) {
      int const saved = errno;
      close();
      errno = saved;
      throw std::runtime_error(errnoText("TPACKET_V2 ring"));
    }
    slots_ = req.tp_frame_nr;
    ringBytes_ = static_cast<size_t>(req.tp_block_nr) * blockBytes;
    void * ring = mmap(nullptr, ringBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (ring == MAP_FAILED) {
      int const saved = errno;
      close();
      errno = saved;
      throw std::runtime_error(errnoText("mmap ring"));
    }
    ring_ = static_cast<unsigned char *>(ring);
    bindTo(fd_, cfg);
  }
  size_t pump(FrameSink & sink, int timeoutMs) override {
    size_t n = drainSlots(sink);
    if (n == 0 && timeoutMs > 0 && waitReadable(fd_, timeoutMs)) n = drainSlots(sink);
    return n;
  }
  void close() override {
    if (ring_) munmap(ring_, ringBytes_);
    ring_ = nullptr;
    SocketReader::close();
  }

 private:
  size_t drainSlots(FrameSink & sink) {
    size_t n = 0;
    for (;;) {
      auto * h = reinterpret_cast<tpacket2_hdr *>(ring_ + static_cast<size_t>(next_) * slotBytes);
      if (!(__atomic_load_n(&h->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER)) return n;
      if (h->tp_status & TP_STATUS_VLAN_VALID) vlanSum_ += h->tp_vlan_tci;
      sink.take(reinterpret_cast<unsigned char *>(h) + h->tp_mac, h->tp_snaplen);
      ++n;
      __atomic_store_n(&h->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
      next_ = (next_ + 1) % slots_;
    }
  }

  unsigned char * ring_ = nullptr;
  size_t ringBytes_ = 0;
  unsigned slots_ = 0;
  unsigned next_ = 0;
};

// libpcap as a capture program uses it: a filter on our EtherType, non-blocking dispatch after poll.
// Without immediate mode libpcap reads a TPACKET_V3 ring whose blocks are handed over when full or
// after the timeout; immediate mode makes it use TPACKET_V2, one frame at a time.
class PcapReader final : public Reader {
 public:
  static constexpr int timeoutMs = 100;
  static constexpr int snapLength = 128;  // our frames are 60 bytes: whole, with small ring slots

  explicit PcapReader(bool immediate) : immediate_(immediate) {}
  ~PcapReader() override { PcapReader::close(); }

  void open(ReaderConfig const & cfg) override {
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_ = pcap_create(cfg.ifname.c_str(), error);
    if (!pcap_) throw std::runtime_error(std::string("pcap_create: ") + error);
    pcap_set_snaplen(pcap_, snapLength);
    pcap_set_promisc(pcap_, 0);
    pcap_set_timeout(pcap_, timeoutMs);
    pcap_set_immediate_mode(pcap_, immediate_ ? 1 : 0);
    // Either ring takes under 320 bytes per 60-byte frame at this snap length.
    pcap_set_buffer_size(pcap_, static_cast<int>(cfg.bufferFor(320)));
    if (pcap_activate(pcap_) < 0) fail("pcap_activate");
    char filter[64];
    std::snprintf(filter, sizeof filter, "ether proto 0x%04x", cfg.ethType);
    bpf_program program{};
    if (pcap_compile(pcap_, &program, filter, 1, PCAP_NETMASK_UNKNOWN) != 0) fail("pcap_compile");
    int const set = pcap_setfilter(pcap_, &program);
    pcap_freecode(&program);
    if (set != 0) fail("pcap_setfilter");
    if (pcap_setnonblock(pcap_, 1, error) != 0) fail("pcap_setnonblock");
    fd_ = pcap_get_selectable_fd(pcap_);
  }
  size_t pump(FrameSink & sink, int timeoutMs) override {
    size_t n = dispatchAll(sink);
    if (n == 0 && timeoutMs > 0 && waitReadable(fd_, timeoutMs)) n = dispatchAll(sink);
    return n;
  }
  KernelStats kernelStats() override { return packetStatistics(fd_, total_); }
  int holdMs() const override { return immediate_ ? 0 : timeoutMs; }
  void close() override {
    if (pcap_) pcap_close(pcap_);
    pcap_ = nullptr;
    fd_ = -1;
  }

 private:
  static void onFrame(u_char * user, pcap_pkthdr const * header, u_char const * bytes) {
    reinterpret_cast<FrameSink *>(user)->take(bytes, header->caplen);
  }
  size_t dispatchAll(FrameSink & sink) {
    size_t n = 0;
    for (;;) {
      int const got = pcap_dispatch(pcap_, -1, &PcapReader::onFrame, reinterpret_cast<u_char *>(&sink));
      if (got <= 0) return n;
      n += static_cast<size_t>(got);
    }
  }
  [[noreturn]] void fail(char const * step) {
    std::string text = std::string(step) + ": " + pcap_geterr(pcap_);
    close();
    throw std::runtime_error(text);
  }

  bool immediate_;
  pcap_t * pcap_ = nullptr;
  int fd_ = -1;
  KernelStats total_;
};

ReaderRegistration recvmsgReader{{"recvmsg", "bare recvmsg loop, one frame per call (aux data, address)", 10,
                                  [] { return std::make_unique<RecvmsgReader>(); }}};
ReaderRegistration recvmmsgReader{{"recvmmsg", "bare recvmmsg loop, up to 128 frames per call", 20,
                                   [] { return std::make_unique<RecvmmsgReader>(); }}};
ReaderRegistration ringV3Reader{{"ring-v3", "bare PACKET_RX_RING TPACKET_V3, 128 KiB blocks, 1 ms retire", 30,
                                 [] { return std::make_unique<RingV3Reader>(); }}};
ReaderRegistration ringV2Reader{{"ring-v2", "bare PACKET_RX_RING TPACKET_V2, 2 KiB slots", 40,
                                 [] { return std::make_unique<RingV2Reader>(); }}};
ReaderRegistration pcapReader{{"libpcap", "libpcap, TPACKET_V3 (not immediate), 100 ms timeout, snaplen 128", 50,
                               [] { return std::make_unique<PcapReader>(false); }}};
ReaderRegistration pcapImmediateReader{{"libpcap-imm", "libpcap immediate mode (TPACKET_V2), snaplen 128", 60,
                                        [] { return std::make_unique<PcapReader>(true); }}};

}  // namespace

}  // namespace PktRate
