// The trace handle of the kernel oper-state module.
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace KernelOperState {

extern Brisklog::Handle traceHandle;

}  // namespace KernelOperState

#define KOS_TRACE(level, pieces) BRISKLOG_TRACE(::KernelOperState::traceHandle, level, pieces)
