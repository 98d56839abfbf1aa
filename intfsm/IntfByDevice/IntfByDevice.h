// The device-name index module: per-namespace indexes of interface status by kernel device name, and
// the reactor that keeps one namespace's index in step with the interfaces.
#pragma once

#include "intfsm/IntfByDevice/AllIntfDeviceNameReactor.h"
#include "intfsm/IntfByDevice/DeviceNameClaims.h"
#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/IntfByDevice/IntfStatusWatcher.h"
#include "intfsm/IntfByDevice/NetNsIntfStatusIndexDir.h"
