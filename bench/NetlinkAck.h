// The acknowledgement of one routing-netlink request, as the benchmarks' bare loops wait for it (what a
// user of the kernel writes, no library): recv until the NLMSG_ERROR of request `seq` comes.
//
//   std::optional<int> const error = Bench::netlinkAck(sd, seq, buffer, sizeof buffer);
//   if (!error) fail("recv: ...errno...");        // recv failed
//   if (*error != 0) fail(std::strerror(-*error));  // the kernel refused the request
#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace Bench {

// The request's error as the kernel acknowledged it (0: done, else a negative errno); nothing when
// recv failed (errno says why). Messages of other requests in the way are skipped.
inline std::optional<int> netlinkAck(int sd, uint32_t seq, char * buffer, size_t size) {
  for (;;) {
    ssize_t const n = recv(sd, buffer, size, 0);
    if (n < 0) return std::nullopt;
    int left = static_cast<int>(n);
    for (auto const * h = reinterpret_cast<nlmsghdr const *>(buffer); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
      if (h->nlmsg_seq == seq && h->nlmsg_type == NLMSG_ERROR) return static_cast<nlmsgerr const *>(NLMSG_DATA(h))->error;
    }
  }
}

}  // namespace Bench
