// The packet-access types in one include: the desired-interface directory, the Pam collection and
// holders, the bundle that shares one raw packet socket among many interfaces with its descriptor and
// activity state machines, the packet-access manager and the bridge interface filter.
#pragma once

#include "intfsm/EthDevPamManagerTypes/EthBridgeIntfFilter.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleActivitySm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleFdSm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamHolder.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamInBundleHolder.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerBase.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
