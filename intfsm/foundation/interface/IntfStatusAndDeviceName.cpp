#include "intfsm/foundation/interface/IntfStatusAndDeviceName.h"

#include <ostream>

namespace Interface {

std::ostream & operator<<(std::ostream & os, IntfStatusAndDeviceName const & r) {
  os << "{ intfStatus: ";
  if (r.intfStatus) os << r.intfStatus->intfId();
  else os << "none";
  return os << ", deviceName: " << r.deviceName << ", ifIndex: " << r.ifIndex << " }";
}

}  // namespace Interface
