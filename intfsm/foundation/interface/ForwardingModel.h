// How an interface forwards traffic, as its status reports it. Consumers act on the bridged model
// (value 4, fixed: peers exchange the number); the others are:
//   forwardingModelUnknown  (0) not reported yet
//   forwardingModelRouted   (1) a layer-3 interface: frames end at the router
//   forwardingModelDataLink (2) carries only link-level protocols for another interface
//                               (a port-channel member, for instance), no forwarding of its own
//   forwardingModelInactive (3) forwards nothing (administratively held, or a mirror destination)
//   forwardingModelBridged  (4) a layer-2 port of a bridge
// Like IntfOperStatus, any received value can be held; one outside the list prints as its number.
#pragma once

#include <cstdint>
#include <iosfwd>

namespace Interface {

enum ForwardingModel : int32_t {
  forwardingModelUnknown = 0,
  forwardingModelRouted = 1,
  forwardingModelDataLink = 2,
  forwardingModelInactive = 3,
  forwardingModelBridged = 4,
};

// The enumerator's name, or null for a value outside the list.
char const * forwardingModelName(ForwardingModel m) noexcept;

std::ostream & operator<<(std::ostream & os, ForwardingModel m);

}  // namespace Interface
