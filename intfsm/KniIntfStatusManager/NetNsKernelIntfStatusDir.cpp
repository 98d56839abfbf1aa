#include "intfsm/KniIntfStatusManager/NetNsKernelIntfStatusDir.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
using D = NetNsKernelIntfStatusDir;
Vorn::AttributeTableOf<D> const attributes("Interface::NetNsKernelIntfStatusDir", [](auto & t) {
  t.scalar("nsName", &D::nsName).scalar("kernelIntfStatusDir", &D::kernelIntfStatusDir).scalar("kniStatus", &D::kniStatus);
});
Intfsm::TypeRegistration registration("Interface::NetNsKernelIntfStatusDir", nullptr, attributes);
}  // namespace

Vorn::Ptr<NetNsKernelIntfStatusDir> netNsKernelIntfStatusDirFactory(
    Ovel::NamespaceName const & nsName, Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
    Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus) {
  return new NetNsKernelIntfStatusDir(nsName, kernelIntfStatusDir, kniStatus);
}

}  // namespace Interface
