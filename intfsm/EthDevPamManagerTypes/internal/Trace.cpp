#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"

namespace Interface {

Brisklog::Handle ethDevPamManagerTypesTrace("EthDevPamManagerTypes");

}  // namespace Interface
