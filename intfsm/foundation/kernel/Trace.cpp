#include "intfsm/foundation/kernel/Trace.h"

namespace KernelNetInfo {

Brisklog::Handle traceHandle("KernelNetInfo");

}  // namespace KernelNetInfo

namespace KernelNetNsInfo {

Brisklog::Handle traceHandle("KernelNetNsInfo");

}  // namespace KernelNetNsInfo
