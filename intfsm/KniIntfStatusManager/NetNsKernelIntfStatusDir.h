// The three things one namespace's kernel interface status manager is made from, kept together for
// agents that hold them per namespace before they ask the root for the manager:
//
//   auto d = Interface::netNsKernelIntfStatusDirFactory(Ovel::NamespaceName("blue"), kernelIntfStatusDir, kniStatus);
//   root->intfStatusManagerIs(d->kernelIntfStatusDir(), d->kniStatus(), d->nsName());
#pragma once

#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class NetNsKernelIntfStatusDir : public Vorn::Entity {
 public:
  char const * vornTypeName() const override { return "Interface::NetNsKernelIntfStatusDir"; }

  Ovel::NamespaceName const & nsName() const { return nsName_; }
  Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir() const { return kernelIntfStatusDir_; }
  Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus() const { return kniStatus_; }

 protected:
  ~NetNsKernelIntfStatusDir() override = default;

 private:
  friend Vorn::Ptr<NetNsKernelIntfStatusDir> netNsKernelIntfStatusDirFactory(
      Ovel::NamespaceName const &, Vorn::Ptr<DeviceIntfStatusDir> const &, Vorn::Ptr<KernelNetInfo::Status const> const &);
  NetNsKernelIntfStatusDir(Ovel::NamespaceName const & nsName, Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                           Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus)
      : Entity(Vorn::Name(nsName.name())), nsName_(nsName), kernelIntfStatusDir_(kernelIntfStatusDir), kniStatus_(kniStatus) {}

  Ovel::NamespaceName nsName_;
  Vorn::Ptr<DeviceIntfStatusDir> kernelIntfStatusDir_;
  Vorn::Ptr<KernelNetInfo::Status const> kniStatus_;
};

// Named after the namespace.
Vorn::Ptr<NetNsKernelIntfStatusDir> netNsKernelIntfStatusDirFactory(
    Ovel::NamespaceName const & nsName, Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
    Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus);

}  // namespace Interface
