#include "intfsm/KniIntfStatusManager/internal/Trace.h"

namespace Interface {

Brisklog::Handle kniIntfStatusManagerTrace("KniIntfStatusManager");

}  // namespace Interface
