// Packet access in the default namespace from one factory call: BaseSimpleEthDevPamManager's
// directories and manager, plus the kernel-side feeder of its device directory (a
// NetNsIntfStatusManagerRoot without namespace filtering, with one KniIntfStatusManager for
// DEFAULT_NS). Once initialized, the device directory follows the kernel's devices of the
// process's namespace and the manager follows the directory.
//
//   auto kernel = KernelNetInfo::Status::statusNew("kernel", Ovel::NamespaceName(Ovel::DEFAULT_NS));
//   kernel->enabledIs(true);
//   auto s = Interface::simpleEthDevPamManagerFactory(allIntfStatus, allIntfStatusLocal, kernel);
//   s->initializedIs(true);
//   s->ethDevPamManager()->enabledIs(true);
//   s->desiredIntfDir()->intfDesiredIs(Ovel::IntfId("Ethernet1"), true);
//
// Every interface is taken to be in the process's own namespace (no namespace filtering): an
// interface whose device lives elsewhere gets no Pam, or the Pam of a same-named local device.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked.
#pragma once

#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/SimpleTxRxPktManager/BaseSimpleEthDevPamManager.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

namespace Interface {

class SimpleEthDevPamManager : public BaseSimpleEthDevPamManager {
 public:
  class NotifieeConst : public Vorn::Notifiee<SimpleEthDevPamManager, BaseSimpleEthDevPamManager::NotifieeConst> {
   public:
    virtual void onIntfStatusManagerRoot() {}
    virtual void onInitialized() {}
  };

  char const * vornTypeName() const override { return "Interface::SimpleEthDevPamManager"; }

  Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus() const { return kniStatus_; }

  Vorn::Ptr<NetNsIntfStatusManagerRoot> const & intfStatusManagerRoot() const { return intfStatusManagerRoot_; }
  // The same arguments keep the current root; others make a new one in its place.
  Vorn::Ptr<NetNsIntfStatusManagerRoot> intfStatusManagerRootIs(
      Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
      Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, bool filterByNetNs);
  void intfStatusManagerRootDel();

  bool initialized() const { return initialized_; }
  // Its change to true runs handleInitialized.
  void initializedIs(bool initialized);

  void handleInitialized();

 protected:
  SimpleEthDevPamManager(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                         Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                         Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus);
  ~SimpleEthDevPamManager() override;

 private:
  friend Vorn::Ptr<SimpleEthDevPamManager> simpleEthDevPamManagerFactory(
      Vorn::Ptr<AllIntfStatusDir const> const &, Vorn::Ptr<AllIntfStatusLocalDir const> const &,
      Vorn::Ptr<KernelNetInfo::Status const> const &);

  Vorn::Ptr<KernelNetInfo::Status const> kniStatus_;
  Vorn::Ptr<NetNsIntfStatusManagerRoot> intfStatusManagerRoot_;
  bool initialized_ = false;
};

// Directories and a disabled manager; nothing follows the kernel until initializedIs(true).
Vorn::Ptr<SimpleEthDevPamManager> simpleEthDevPamManagerFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus);

}  // namespace Interface
