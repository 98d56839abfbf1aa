// What the kernel reports of one network device right now, asked over rtnetlink in the device's
// namespace (RTM_GETLINK by name). The agent's table shows it beside its own counters.
//
//   auto link = Tools::queryLink("lab", "va0");     // "" or "default": the process's own namespace
//   if (link) printf("%u %s\n", link->ifIndex, Tools::operStateName(link->operState));
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Tools {

struct LinkInfo {
  uint32_t ifIndex = 0;
  uint8_t operState = 0;  // IF_OPER_*
  uint32_t flags = 0;     // IFF_*
};

// Nullopt when there is no such device or namespace (or the kernel cannot be asked).
std::optional<LinkInfo> queryLink(std::string const & netNs, std::string const & device);

// "UP", "DORMANT", "DOWN", "LOWERLAYERDOWN", ... as ip link prints IF_OPER_* values.
char const * operStateName(uint8_t operState);

}  // namespace Tools
