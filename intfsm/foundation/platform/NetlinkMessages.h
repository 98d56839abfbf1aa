// The netlink messages of one datagram as recvmsg returned it, each checked against the bytes
// actually read before any of it is looked at. Every reader of kernel messages walks with this.
//
//   Platform::NetlinkMessages messages(buffer, static_cast<size_t>(length));
//   while (nlmsghdr const * nlh = messages.next()) handle(nlh);   // nlh->nlmsg_len bytes are there
//   if (messages.malformed()) ...                                  // the rest of the datagram is unreadable
//
// A message is handed out only when its header and its whole nlmsg_len lie inside the bytes read, so
// a reader may trust nlmsg_len (and libmnl's payload and attribute walks, which go by it). The walk
// stops at the first message that does not fit (a length shorter than a header, or one running past
// the end, such as a length of 2 GiB or more, which a signed comparison would let through) and at
// bytes left over that are too few for a header; malformed() is then true. The next message starts at
// the aligned end of the one before, as the kernel lays them out.
//
// Here rather than beside a reader because readers in several areas share it; it only reads bytes.
#pragma once

#include <linux/netlink.h>

#include <cstddef>

namespace Platform {

class NetlinkMessages {
 public:
  // `data` is aligned for nlmsghdr (the receive buffer) and holds `length` bytes.
  NetlinkMessages(void const * data, size_t length) noexcept
      : data_(static_cast<char const *>(data)), length_(length) {}

  // The next whole message, or null at the end of the datagram or at the first that is not whole.
  nlmsghdr const * next() noexcept {
    if (done_) return nullptr;
    size_t const left = length_ - at_;
    if (left == 0) {
      done_ = true;
      return nullptr;
    }
    auto const * nlh = reinterpret_cast<nlmsghdr const *>(data_ + at_);
    if (left < sizeof(nlmsghdr) || nlh->nlmsg_len < sizeof(nlmsghdr) || nlh->nlmsg_len > left) {
      done_ = true;
      malformed_ = true;
      return nullptr;
    }
    size_t const aligned = NLMSG_ALIGN(static_cast<size_t>(nlh->nlmsg_len));
    at_ = aligned < left ? at_ + aligned : length_;
    return nlh;
  }

  // Whether the walk stopped at bytes that are not a whole message.
  bool malformed() const noexcept { return malformed_; }

 private:
  char const * data_;
  size_t length_;
  size_t at_ = 0;
  bool done_ = false;
  bool malformed_ = false;
};

}  // namespace Platform
