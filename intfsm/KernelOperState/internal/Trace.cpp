#include "intfsm/KernelOperState/internal/Trace.h"

namespace KernelOperState {

Brisklog::Handle traceHandle("KernelOperState");

}  // namespace KernelOperState
