#include "intfsm/foundation/ovel/NamespaceName.h"

#include <ostream>

#include "intfsm/foundation/vorn/Exception.h"

namespace Ovel {

NamespaceName::NamespaceName(Vorn::String const & name) {
  if (name.size() > maxBytes) throw Vorn::RangeException("NamespaceName::bytes > 150 not allowed");
  name_ = name;
}

NamespaceName NamespaceName::defaultNamespace() {
  static NamespaceName const ns{Vorn::String(DEFAULT_NS)};
  return ns;
}

std::ostream & operator<<(std::ostream & os, NamespaceName const & ns) { return os << ns.name(); }

}  // namespace Ovel
