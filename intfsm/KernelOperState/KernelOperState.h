// The whole kernel oper-state module in one include, for agents that wire it up (see Root.h):
//
//   #include "intfsm/KernelOperState/KernelOperState.h"
//   auto root = KernelOperState::rootFactory("kos");
//
// Every public header of the module is listed here; scripts/consumer-check fails when one is missing.
#pragma once

#include "intfsm/KernelOperState/IntfStatusDir.h"
#include "intfsm/KernelOperState/IntfStatusOperStatusSm.h"
#include "intfsm/KernelOperState/KernelOperStateManager.h"
#include "intfsm/KernelOperState/Root.h"
