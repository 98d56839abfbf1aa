#include "intfsm/foundation/interface/IntfOperStatus.h"

#include <ostream>

namespace Interface {

char const * intfOperStatusName(IntfOperStatus s) noexcept {
  switch (s) {
    case intfOperUp: return "intfOperUp";
    case intfOperDown: return "intfOperDown";
    case intfOperTesting: return "intfOperTesting";
    case intfOperUnknown: return "intfOperUnknown";
    case intfOperDormant: return "intfOperDormant";
    case intfOperNotPresent: return "intfOperNotPresent";
    case intfOperLowerLayerDown: return "intfOperLowerLayerDown";
  }
  return nullptr;
}

std::ostream & operator<<(std::ostream & os, IntfOperStatus s) {
  if (char const * name = intfOperStatusName(s)) return os << name;
  return os << static_cast<int32_t>(s);
}

}  // namespace Interface
