// The packet-access types in one include: the desired-interface directory, the Pam collection and
// holders, and the bundle that shares one raw packet socket among many interfaces, with its
// descriptor and activity state machines.
#pragma once

#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleActivitySm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleFdSm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamHolder.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamInBundleHolder.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
