#include "intfsm/KernelOperState/Trace.h"

namespace KernelOperState {

Brisklog::Handle traceHandle("KernelOperState");

}  // namespace KernelOperState
