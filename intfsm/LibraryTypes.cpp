#include "intfsm/LibraryTypes.h"

namespace Intfsm {

Vorn::TypeRegistry & typeRegistry() {
  static Vorn::TypeRegistry registry({
      "Interface::NetNsIntfStatusIndexDir",
      "Interface::IntfStatusIndexDir",
      "Interface::AllIntfDeviceNameReactor",
      "Interface::KniIntfStatusManager",
      "Interface::NetNsKernelIntfStatusDir",
      "Interface::KniAllIntfDeviceNameReactor",
      "Interface::NetNsIntfIdMap",
      "Interface::NetNsIntfStatusManagerRoot",
      "Interface::EthDevPamBundleFdSm",
      "Interface::EthDevPamManagerBase",
      "Interface::EthDevPamCollection",
      "Interface::PamDesiredIntfDir",
      "Interface::EthDevPamInBundleHolder",
      "Interface::EthDevPamBundleActivitySm",
      "Interface::EthDevPamHolder",
      "Interface::EthDevPamBundle",
      "Interface::EthDevPamManager",
      "Interface::EthBridgeIntfFilter",
      "Interface::BaseSimpleEthDevPamManager",
      "Interface::SimpleEthDevPamManager",
      "Interface::SimpleTxRxPktManager",
      "KernelOperState::KernelOperStateManager",
      "KernelOperState::IntfStatusDir",
      "KernelOperState::IntfStatusLocalDir",
      "KernelOperState::IntfStatusOperStatusSm",
      "KernelOperState::Root",
  });
  return registry;
}

}  // namespace Intfsm
