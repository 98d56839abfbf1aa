// The trace handle of the kernel interface status module, "KniIntfStatusManager".
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace Interface {

extern Brisklog::Handle kniIntfStatusManagerTrace;

}  // namespace Interface

#define KNISM_TRACE(level, pieces) BRISKLOG_TRACE(::Interface::kniIntfStatusManagerTrace, level, pieces)
