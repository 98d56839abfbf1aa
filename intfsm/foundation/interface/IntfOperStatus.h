// The operational status of an interface, numbered as ifOperStatus of RFC 2863 (1 up ... 7
// lowerLayerDown). The numbers matter: they travel between agents and map onto the kernel's operstate.
//
// The type has a fixed underlying integer so that any value received from a peer can be held and
// traced, including ones outside the list (0, or a future value): such a value prints as its number.
//
//   Interface::IntfOperStatus s = Interface::intfOperUp;
//   std::cout << s;                                       // "intfOperUp"
//   std::cout << Interface::IntfOperStatus(0);            // "0"
#pragma once

#include <cstdint>
#include <iosfwd>

namespace Interface {

enum IntfOperStatus : int32_t {
  intfOperUp = 1,
  intfOperDown = 2,
  intfOperTesting = 3,
  intfOperUnknown = 4,
  intfOperDormant = 5,
  intfOperNotPresent = 6,
  intfOperLowerLayerDown = 7,
};

// The enumerator's name, or null for a value outside the list.
char const * intfOperStatusName(IntfOperStatus s) noexcept;

std::ostream & operator<<(std::ostream & os, IntfOperStatus s);

}  // namespace Interface
