#include "intfsm/foundation/interface/internal/Trace.h"

namespace Interface {

Brisklog::Handle traceHandle("Interface", true);

}  // namespace Interface
