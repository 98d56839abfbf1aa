// The message headers of a packet socket's reads: per slot the frame's buffer, its source address
// (sockaddr_ll) and room for the PACKET_AUXDATA message that carries a VLAN tag and the
// SCM_TIMESTAMPNS message that carries the receive time. One batch serves a
// single read (recvmsg on slot 0) or a batch read (recvmmsg on headers()); every receive path of
// the packet layer reads through one, made once and kept, so that no read allocates.
//
//   Ovel::RxBatch batch(128);
//   for (size_t i = 0; i < n; ++i) batch.slotIs(i, pkt[i]->data(), maxRxPktData);
//   int got = recvmmsg(sd, batch.headers(), n, MSG_DONTWAIT, nullptr);
//   ... batch.from(i).sll_ifindex, batch.length(i), batch.header(i) for the auxiliary data ...
#pragma once

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <vector>

namespace Ovel {

class RxBatch {
 public:
  // Room for the PACKET_AUXDATA and SCM_TIMESTAMPNS messages, and a little more should the kernel add
  // one.
  static constexpr size_t controlBytes =
      CMSG_SPACE(sizeof(tpacket_auxdata)) + CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(int));

  explicit RxBatch(size_t slots) : headers_(slots), iov_(slots), from_(slots), control_(slots) {}

  size_t size() const noexcept { return headers_.size(); }
  // Slot `i` reads into `bytes` bytes at `data`; its length, source and auxiliary data are cleared.
  void slotIs(size_t i, void * data, uint32_t bytes) noexcept;
  mmsghdr * headers() noexcept { return headers_.data(); }
  msghdr & header(size_t i) noexcept { return headers_[i].msg_hdr; }
  sockaddr_ll const & from(size_t i) const noexcept { return from_[i]; }
  // The length that recvmmsg reported for slot `i`.
  uint32_t length(size_t i) const noexcept { return headers_[i].msg_len; }

 private:
  struct alignas(cmsghdr) Control {
    unsigned char bytes[controlBytes];
  };
  std::vector<mmsghdr> headers_;
  std::vector<iovec> iov_;
  std::vector<sockaddr_ll> from_;
  std::vector<Control> control_;
};

inline void RxBatch::slotIs(size_t i, void * data, uint32_t bytes) noexcept {
  iov_[i] = iovec{data, bytes};
  from_[i] = sockaddr_ll{};
  msghdr & h = headers_[i].msg_hdr;
  h = msghdr{};
  h.msg_name = &from_[i];
  h.msg_namelen = sizeof(sockaddr_ll);
  h.msg_iov = &iov_[i];
  h.msg_iovlen = 1;
  h.msg_control = control_[i].bytes;
  h.msg_controllen = controlBytes;
  headers_[i].msg_len = 0;
}

}  // namespace Ovel
