#include "intfsm/foundation/ovel/internal/Trace.h"

namespace Ovel {

Brisklog::Handle traceHandle("Ovel");

}  // namespace Ovel
