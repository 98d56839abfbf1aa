#include "intfsm/foundation/kernel/internal/Trace.h"

namespace KernelNetInfo {

Brisklog::Handle traceHandle("KernelNetInfo");

}  // namespace KernelNetInfo

namespace KernelNetNsInfo {

Brisklog::Handle traceHandle("KernelNetNsInfo");

}  // namespace KernelNetNsInfo
