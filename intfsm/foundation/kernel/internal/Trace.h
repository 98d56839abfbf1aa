// The trace handles of the kernel information modules: "KernelNetInfo" (the link table of a
// namespace and the rtnetlink monitor that fills it) and "KernelNetNsInfo" (the namespaces that exist
// and the /run/netns watcher that follows them).
#pragma once

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace KernelNetInfo {

extern Brisklog::Handle traceHandle;

}  // namespace KernelNetInfo

namespace KernelNetNsInfo {

extern Brisklog::Handle traceHandle;

}  // namespace KernelNetNsInfo

#define KNI_TRACE(level, pieces) BRISKLOG_TRACE(::KernelNetInfo::traceHandle, level, pieces)
#define KNNI_TRACE(level, pieces) BRISKLOG_TRACE(::KernelNetNsInfo::traceHandle, level, pieces)
