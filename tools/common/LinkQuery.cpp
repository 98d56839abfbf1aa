#include "tools/common/LinkQuery.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "intfsm/foundation/ovel/SocketAt.h"

namespace Tools {

namespace {
int attribute(nlattr const * attr, void * data) {
  auto * info = static_cast<LinkInfo *>(data);
  if (mnl_attr_get_type(attr) == IFLA_OPERSTATE && mnl_attr_validate(attr, MNL_TYPE_U8) >= 0) {
    info->operState = mnl_attr_get_u8(attr);
  }
  return MNL_CB_OK;
}

int message(nlmsghdr const * nlh, void * data) {
  auto * info = static_cast<LinkInfo *>(data);
  auto const * ifm = static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(nlh));
  info->ifIndex = static_cast<uint32_t>(ifm->ifi_index);
  info->flags = ifm->ifi_flags;
  return mnl_attr_parse(nlh, sizeof *ifm, attribute, data);
}
}  // namespace

std::optional<LinkInfo> queryLink(std::string const & netNs, std::string const & device) {
  if (device.empty() || device.size() >= IFNAMSIZ) return std::nullopt;
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, netNs.c_str());
  if (sd < 0) return std::nullopt;
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  nlmsghdr * nlh = mnl_nlmsg_put_header(buffer.data());
  nlh->nlmsg_type = RTM_GETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = 1;
  auto * ifm = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(nlh, IFLA_IFNAME, device.c_str());
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  std::optional<LinkInfo> result;
  if (sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) >= 0) {
    ssize_t const n = recv(sd, buffer.data(), buffer.size(), 0);
    LinkInfo info;
    // An unknown device comes back as an error message, which mnl_cb_run reports as -1.
    if (n > 0 && mnl_cb_run(buffer.data(), static_cast<size_t>(n), 1, 0, message, &info) >= MNL_CB_STOP &&
        info.ifIndex != 0) {
      result = info;
    }
  }
  close(sd);
  return result;
}

char const * operStateName(uint8_t operState) {
  switch (operState) {
    case IF_OPER_UNKNOWN: return "UNKNOWN";
    case IF_OPER_NOTPRESENT: return "NOTPRESENT";
    case IF_OPER_DOWN: return "DOWN";
    case IF_OPER_LOWERLAYERDOWN: return "LOWERLAYERDOWN";
    case IF_OPER_TESTING: return "TESTING";
    case IF_OPER_DORMANT: return "DORMANT";
    case IF_OPER_UP: return "UP";
    default: return "?";
  }
}

}  // namespace Tools
