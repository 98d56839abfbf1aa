#include "intfsm/foundation/interface/ForwardingModel.h"

#include <ostream>

namespace Interface {

char const * forwardingModelName(ForwardingModel m) noexcept {
  switch (m) {
    case forwardingModelUnknown: return "forwardingModelUnknown";
    case forwardingModelRouted: return "forwardingModelRouted";
    case forwardingModelDataLink: return "forwardingModelDataLink";
    case forwardingModelInactive: return "forwardingModelInactive";
    case forwardingModelBridged: return "forwardingModelBridged";
  }
  return nullptr;
}

std::ostream & operator<<(std::ostream & os, ForwardingModel m) {
  if (char const * name = forwardingModelName(m)) return os << name;
  return os << static_cast<int32_t>(m);
}

}  // namespace Interface
