#include "bench/pktrate/Reader.h"

#include <sys/socket.h>

#include <algorithm>

namespace PktRate {

namespace {
std::vector<ReaderKind> & registry() {
  static std::vector<ReaderKind> kinds;
  return kinds;
}
}  // namespace

ReaderRegistration::ReaderRegistration(ReaderKind kind) { registry().push_back(std::move(kind)); }

std::vector<ReaderKind> readerKinds() {
  std::vector<ReaderKind> kinds = registry();
  std::stable_sort(kinds.begin(), kinds.end(), [](auto const & x, auto const & y) { return x.order < y.order; });
  return kinds;
}

KernelStats packetStatistics(int fd, KernelStats & total) {
  // tpacket_stats_v3 starts like tpacket_stats; the kernel fills what the socket's version has.
  tpacket_stats_v3 st{};
  socklen_t length = sizeof st;
  if (fd >= 0 && getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &st, &length) == 0) {
    total.packets += st.tp_packets;  // includes the dropped ones
    total.drops += st.tp_drops;
  }
  return total;
}

}  // namespace PktRate
