#include "intfsm/IntfByDevice/internal/Trace.h"

namespace Interface {

Brisklog::Handle intfByDeviceTrace("IntfByDevice");

}  // namespace Interface
