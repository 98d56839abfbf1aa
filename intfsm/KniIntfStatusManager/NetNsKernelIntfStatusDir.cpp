#include "intfsm/KniIntfStatusManager/NetNsKernelIntfStatusDir.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration("Interface::NetNsKernelIntfStatusDir", nullptr,
                                      {"nsName", "kernelIntfStatusDir", "kniStatus"});
}  // namespace

Vorn::Ptr<NetNsKernelIntfStatusDir> netNsKernelIntfStatusDirFactory(
    Ovel::NamespaceName const & nsName, Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
    Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus) {
  return new NetNsKernelIntfStatusDir(nsName, kernelIntfStatusDir, kniStatus);
}

}  // namespace Interface
