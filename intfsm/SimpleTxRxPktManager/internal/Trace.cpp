#include "intfsm/SimpleTxRxPktManager/internal/Trace.h"

namespace Interface {

Brisklog::Handle simpleTxRxPktManagerTrace("SimpleTxRxPktManager");

}  // namespace Interface
