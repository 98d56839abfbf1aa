#include "intfsm/foundation/ovel/Trace.h"

namespace Ovel {

Brisklog::Handle traceHandle("Ovel");

}  // namespace Ovel
